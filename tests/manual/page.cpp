#include "page.h"

#include "support/files.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace {

const std::filesystem::path page_directory =
    std::filesystem::path(SOURCE_DIRECTORY) / "packaging" / "man";

std::size_t depth_of(const std::string& line) {
    return std::min(line.find_first_not_of('\t'), line.size());
}

/// Without the marks of bold text, and of italic text around a word.
std::string plain(const std::string& text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool is_within_word = text[i] == '_' && i > 0 && i + 1 < text.size() &&
                                    std::isalnum(static_cast<unsigned char>(text[i - 1])) != 0 &&
                                    std::isalnum(static_cast<unsigned char>(text[i + 1])) != 0;
        if (text[i] == '\\' && i + 1 < text.size()) {
            result += text[++i];
        } else if (text[i] != '*' && (text[i] != '_' || is_within_word)) {
            result += text[i];
        }
    }
    return result;
}

void append_words(std::string& text, const std::string& line) {
    const std::string words = plain(line.substr(depth_of(line)));
    text += (text.empty() || words.empty() ? "" : " ") + words;
}

}  // namespace

std::string text_of(const std::filesystem::path& file) {
    std::ifstream stream(file);
    if (!stream) {
        throw std::runtime_error("can't read " + file.string());
    }
    return {std::istreambuf_iterator<char>(stream), {}};
}

std::vector<std::filesystem::path> page_files() {
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(page_directory)) {
        if (entry.path().extension() == ".scd") {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

Page::Page(const std::string& name) : source_(text_of(page_directory / name)) {}

std::vector<std::string> Page::section(const std::string& heading) const {
    std::vector<std::string> lines;
    bool is_inside = false;
    for (const std::string& line : lines_of(source_)) {
        if (line.rfind("# ", 0) == 0) {
            is_inside = line == "# " + heading;
        } else if (is_inside) {
            lines.push_back(line);
        }
    }
    return lines;
}

std::string Page::section_text(const std::string& heading) const {
    std::string text;
    for (const std::string& line : section(heading)) {
        append_words(text, line);
    }
    return text;
}

std::vector<PageEntry> Page::entries(const std::string& heading, std::size_t depth) const {
    std::vector<PageEntry> entries;
    bool is_inside = false;
    const std::vector<std::string> lines = section(heading);
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const std::size_t here = depth_of(lines[i]);
        if (here == lines[i].size()) {
            continue;
        }
        const bool is_term = here == depth && lines[i][here] == '*' && i + 1 < lines.size() &&
                             depth_of(lines[i + 1]) == depth + 1;
        if (is_term) {
            entries.push_back({lines[i].substr(here), ""});
            is_inside = true;
        } else if (here <= depth) {
            is_inside = false;
        } else if (is_inside) {
            append_words(entries.back().text, lines[i]);
        }
    }
    return entries;
}
