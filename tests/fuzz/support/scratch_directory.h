/// \file
/// A directory of this process, in memory where the system has such a place.
#pragma once

#include <cstdint>
#include <span>
#include <string>

/// The directory's path. It is made at the first call, below $TMPDIR or /dev/shm, and removed with
/// its files when the process ends by itself.
const std::string& scratch_directory();

/// Writes the bytes into the file of that name, which is made anew, and gives its path.
std::string write_scratch_file(const std::string& name, std::span<const std::uint8_t> bytes);
