/// \file
/// The error of a file that can't be used.
#pragma once

#include <stdexcept>
#include <string>

namespace zelf {

/// A file that cannot be used; `what()` is "FILE:LINE: reason", or "FILE: reason" where no line is
/// to blame.
class FileError : public std::runtime_error {
  public:
    FileError(const std::string& file, unsigned line, const std::string& reason)
        : std::runtime_error(file + (line > 0 ? ":" + std::to_string(line) : "") + ": " + reason) {}
};

}  // namespace zelf
