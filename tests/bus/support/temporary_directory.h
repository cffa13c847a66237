/// \file
/// A directory that is removed with all it holds, and the reading and writing of whole files.
#pragma once

#include <filesystem>
#include <string>

class TemporaryDirectory {
  public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    std::filesystem::path path(const std::string& name = "") const { return path_ / name; }

  private:
    std::filesystem::path path_;
};

/// The whole of a file; empty when it can't be read.
std::string read_file(const std::filesystem::path& path);

/// Replaces a file. Throws when that fails.
void write_file(const std::filesystem::path& path, const std::string& content);
