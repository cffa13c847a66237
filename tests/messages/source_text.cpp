#include "source_text.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <iterator>
#include <sstream>

namespace {

/// Walks a C++ source and collects its string literals.
class Lexer {
  public:
    Lexer(std::string file, const std::string& text) : file_(std::move(file)), text_(text) {}

    std::vector<Literal> literals() {
        while (!at_end()) {
            if (starts_with("//")) {
                skip_line();
            } else if (starts_with("/*")) {
                skip_past("*/");
            } else if (peek() == '#' && is_first_on_line_) {
                skip_line();
            } else if (starts_with("static_assert")) {
                skip_past(");");
            } else if (peek() == '\'' && !follows_digit()) {
                skip_character();
            } else if (starts_with("R\"(")) {
                take_raw_string();
            } else if (peek() == '"') {
                take_string();
            } else {
                if (std::isspace(static_cast<unsigned char>(peek())) == 0) {
                    joins_ = false;
                    is_first_on_line_ = false;
                }
                next();
            }
        }
        return std::move(literals_);
    }

  private:
    bool at_end() const { return at_ >= text_.size(); }
    char peek() const { return text_[at_]; }
    bool starts_with(const char* wanted) const {
        return text_.compare(at_, std::char_traits<char>::length(wanted), wanted) == 0;
    }
    /// A ' between digits groups them.
    bool follows_digit() const {
        return at_ > 0 && std::isalnum(static_cast<unsigned char>(text_[at_ - 1])) != 0;
    }
    char next() {
        const char c = text_[at_++];
        if (c == '\n') {
            ++line_;
            is_first_on_line_ = true;
        }
        return c;
    }
    void skip_line() {
        while (!at_end() && peek() != '\n') {
            next();
        }
    }
    void skip_past(const std::string& end) {
        const std::size_t found = std::min(text_.find(end, at_), text_.size());
        while (at_ < found) {
            next();
        }
        at_ = std::min(at_ + end.size(), text_.size());
    }
    void skip_character() {
        next();
        while (!at_end() && peek() != '\'') {
            if (next() == '\\') {
                next();
            }
        }
        next();
        joins_ = false;
    }
    void add(const std::string& text, int line) {
        if (joins_) {
            literals_.back().text += text;
        } else {
            literals_.push_back({file_, line, text});
        }
        joins_ = true;
    }
    void take_raw_string() {
        const int line = line_;
        at_ += 3;
        const std::size_t end = std::min(text_.find(")\"", at_), text_.size());
        std::string text;
        while (at_ < end) {
            text += next();
        }
        at_ = std::min(at_ + 2, text_.size());
        add(text, line);
    }
    void take_string() {
        const int line = line_;
        next();
        std::string text;
        while (!at_end() && peek() != '"') {
            text += peek() == '\\' ? take_escape() : next();
        }
        next();
        add(text, line);
    }
    char take_escape() {
        next();
        const char c = next();
        switch (c) {
            case 'n':
                return '\n';
            case 't':
                return '\t';
            case 'r':
                return '\r';
            default:
                return c;
        }
    }

    std::string file_;
    const std::string& text_;
    std::size_t at_ = 0;
    int line_ = 1;
    bool is_first_on_line_ = true;
    bool joins_ = false;
    std::vector<Literal> literals_;
};

/// Where the part begins behind `at`, on the same line and not far off; npos when it does not.
std::size_t find_near(const std::string& texts, const std::string& part, std::size_t at) {
    // What a conversion prints, and what a test puts in its place.
    constexpr std::ptrdiff_t most_literals_between = 3;
    constexpr std::size_t longest_gap = 300;
    const std::size_t found = texts.find(part, at);
    if (found == std::string::npos || found - at > longest_gap) {
        return std::string::npos;
    }
    const auto begin = texts.begin() + static_cast<std::ptrdiff_t>(at);
    const auto end = texts.begin() + static_cast<std::ptrdiff_t>(found);
    const bool is_near =
        std::find(begin, end, '\n') == end && std::count(begin, end, '\0') <= most_literals_between;
    return is_near ? found : std::string::npos;
}

}  // namespace

std::vector<Literal> string_literals(const std::filesystem::path& file) {
    const std::string text = file_text(file);
    return Lexer(file.filename().string(), text).literals();
}

std::vector<std::vector<std::string>> fixed_lines(const std::string& format) {
    constexpr char conversions[] = "diuoxXcspfFeEgGaA";
    std::vector<std::vector<std::string>> lines = {{""}};
    for (std::size_t at = 0; at < format.size(); ++at) {
        if (format.compare(at, 2, "%%") == 0) {
            lines.back().back() += '%';
            ++at;
        } else if (format[at] == '%') {
            at = std::min(format.find_first_of(conversions, at), format.size());
            lines.back().emplace_back();
        } else if (format[at] == '\n') {
            lines.push_back({""});
        } else {
            lines.back().back() += format[at];
        }
    }
    for (auto& parts : lines) {
        std::erase(parts, "");
    }
    return lines;
}

bool holds_line(const std::string& texts, const std::vector<std::string>& parts) {
    for (std::size_t first = texts.find(parts.front()); first != std::string::npos;
         first = texts.find(parts.front(), first + 1)) {
        std::size_t at = first;
        const bool found = std::all_of(parts.begin(), parts.end(), [&](const std::string& part) {
            at = find_near(texts, part, at);
            const bool is_there = at != std::string::npos;
            at += is_there ? part.size() : 0;
            return is_there;
        });
        if (found) {
            return true;
        }
    }
    return false;
}

std::string file_text(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

std::vector<std::filesystem::path> files_below(const std::filesystem::path& directory,
                                               const std::vector<std::string>& extensions) {
    std::vector<std::filesystem::path> found;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
        const std::string extension = entry.path().extension().string();
        if (entry.is_regular_file() &&
            std::find(extensions.begin(), extensions.end(), extension) != extensions.end()) {
            found.push_back(entry.path());
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}
