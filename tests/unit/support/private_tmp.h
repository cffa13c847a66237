/// \file
/// A /tmp of a child process's own, to look at what stands under the default names there.
#pragma once

/// Exit codes of a child that could not have one.
constexpr int no_right_to_mount = 77;
constexpr int no_private_tmp = 78;

/// Puts an empty directory at /tmp, for the calling process alone, or ends the process.
void enter_private_tmp();
