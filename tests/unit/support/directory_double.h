/// \file
/// Stands in front of the C library's readdir, so that a directory can look like one of a file
/// system that keeps no file types in it.
#pragma once

/// True: every entry comes with type DT_UNKNOWN.
void directory_double_hides_types(bool hide);
