/// \file
/// Text put together as `printf` does it.
#pragma once

#include <string>

namespace zelf {

/// At most 1023 characters.
std::string printed(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace zelf
