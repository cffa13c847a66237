/// \file
/// A manual page's source, taken apart.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

/// Something that is explained: "*-p* _directory_", and what is said about it.
struct PageEntry {
    std::string term;
    std::string text;  ///< without line breaks, and as plain text
};

class Page {
  public:
    /// A file of packaging/man; throws when it can't be read.
    explicit Page(const std::string& name);

    /// The lines of a section, without its heading; empty when there is none.
    std::vector<std::string> section(const std::string& heading) const;
    /// The section, as plain text without line breaks.
    std::string section_text(const std::string& heading) const;
    /// What a section explains, at this depth of indentation.
    std::vector<PageEntry> entries(const std::string& heading, std::size_t depth = 0) const;
    /// The whole source.
    const std::string& source() const { return source_; }

  private:
    std::string source_;
};

std::string text_of(const std::filesystem::path& file);

/// The sources of all pages.
std::vector<std::filesystem::path> page_files();
