/// \file
/// The texts that stand in source files.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

/// A string literal, adjacent ones joined, escapes resolved.
struct Literal {
    std::string file;
    int line;
    std::string text;
};

/// The string literals of a C++ source, without those of preprocessor lines and static_asserts.
std::vector<Literal> string_literals(const std::filesystem::path& file);

/// The parts of a format that are printed as they stand, longest first: cut at conversions,
/// newlines and tabs, trimmed.
std::vector<std::string> fixed_parts(const std::string& format);

/// The whole file.
std::string file_text(const std::filesystem::path& file);

/// The regular files below `directory` that end in one of `extensions`, sorted.
std::vector<std::filesystem::path> files_below(const std::filesystem::path& directory,
                                               const std::vector<std::string>& extensions);
