/// \file
/// A run under a clock and a scheduler of our own: what the preloaded object is told.
#pragma once

#include <map>
#include <string>
#include <string_view>

namespace zelfsim {

inline constexpr const char* time_file = "libzelfwsim-time.so";

/// The variable for an option of virtual time that takes an argument; null when there is none of
/// that name.
const char* virtual_time_variable(std::string_view option);

/// For all programs that are started from now on: just these variables, and memory that is laid out
/// in the same way each time, so that the addresses in a log are the same. Throws
/// std::system_error.
void begin_virtual_time(const std::map<std::string, std::string>& settings);

}  // namespace zelfsim
