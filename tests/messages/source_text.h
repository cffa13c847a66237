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

/// The lines of a format, each as the parts that are printed as they stand: cut at conversions.
std::vector<std::vector<std::string>> fixed_lines(const std::string& format);

/// Whether a line stands somewhere in `texts`, literals with a zero byte between them: its parts
/// one after the other, with little between them and no line's end.
bool holds_line(const std::string& texts, const std::vector<std::string>& parts);

/// The whole file.
std::string file_text(const std::filesystem::path& file);

/// The regular files below `directory` that end in one of `extensions`, sorted.
std::vector<std::filesystem::path> files_below(const std::filesystem::path& directory,
                                               const std::vector<std::string>& extensions);
