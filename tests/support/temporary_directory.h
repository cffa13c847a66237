/// \file
/// A directory that is removed with all it holds.
#pragma once

#include "support/files.h"

#include <string>

class TemporaryDirectory {
  public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::string& path() const { return path_; }
    std::string path(const std::string& name) const { return path_ + "/" + name; }
    /// Writes a file and gives its path.
    std::string write(const std::string& name, const std::string& content) const;

  private:
    std::string path_;
};
