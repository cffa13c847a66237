/// \file
/// Reads and writes whole files.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

/// The whole of a file; empty when it can't be read.
std::string read_file(const std::filesystem::path& path);

/// Replaces a file. Throws when that fails.
void write_file(const std::filesystem::path& path, const std::string& content);

/// The lines of a text, without their newlines.
std::vector<std::string> lines_of(const std::string& text);
