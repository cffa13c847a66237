#include "common/toml_table.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>

namespace zelf {

namespace {

constexpr double longest_milliseconds = 600000;
constexpr std::size_t longest_text = 4096;
constexpr std::size_t longest_key = 32;  ///< that is compared with known ones

std::string quoted(std::string_view key) {
    return "\"" + std::string(key) + "\"";
}

bool is_among(std::initializer_list<TomlTable::Keys> lists, std::string_view key) {
    return std::any_of(lists.begin(), lists.end(), [key](const TomlTable::Keys& list) {
        return std::find(list.begin(), list.end(), key) != list.end();
    });
}

/// How many letters were left out, added, mistaken, or changed places with their neighbour.
std::size_t slips(std::string_view left, std::string_view right) {
    std::vector<std::vector<std::size_t>> rows(left.size() + 1,
                                               std::vector<std::size_t>(right.size() + 1));
    for (std::size_t i = 0; i <= left.size(); ++i) {
        for (std::size_t j = 0; j <= right.size(); ++j) {
            if (i == 0 || j == 0) {
                rows[i][j] = i + j;
                continue;
            }
            const std::size_t mistaken = left[i - 1] == right[j - 1] ? 0 : 1;
            rows[i][j] =
                std::min({rows[i - 1][j] + 1, rows[i][j - 1] + 1, rows[i - 1][j - 1] + mistaken});
            if (i > 1 && j > 1 && left[i - 1] == right[j - 2] && left[i - 2] == right[j - 1]) {
                rows[i][j] = std::min(rows[i][j], rows[i - 2][j - 2] + 1);
            }
        }
    }
    return rows[left.size()][right.size()];
}

/// The key that `written` most likely stands for; empty when none is near.
std::string_view nearest(std::initializer_list<TomlTable::Keys> lists, std::string_view written) {
    constexpr std::size_t letters_of_a_slip = 3;
    std::string_view found;
    std::size_t least = written.size() / letters_of_a_slip + 1;
    if (written.size() > longest_key) {
        return found;
    }
    for (const TomlTable::Keys& list : lists) {
        for (const std::string_view key : list) {
            const std::size_t distance = slips(written, key);
            if (distance < least) {
                least = distance;
                found = key;
            }
        }
    }
    return found;
}

}  // namespace

toml::table parse_toml_file(const std::string& file) {
    struct stat information {};
    if (stat(file.c_str(), &information) != 0) {
        throw FileError(file, 0, std::strerror(errno));
    }
    if (!S_ISREG(information.st_mode)) {
        throw FileError(file, 0, "not a regular file");
    }
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        throw FileError(file, 0, std::strerror(errno));
    }
    const std::string content{std::istreambuf_iterator<char>(stream), {}};
    try {
        return toml::parse(content, file);
    } catch (const toml::parse_error& error) {
        throw FileError(file, error.source().begin.line, std::string(error.description()));
    }
}

void TomlTable::know_only(std::initializer_list<Keys> known) const {
    const toml::key* first = nullptr;
    for (const auto& [key, node] : *table_) {
        if (!is_among(known, key.str()) &&
            (first == nullptr || key.source().begin.line < first->source().begin.line)) {
            first = &key;
        }
    }
    if (first == nullptr) {
        return;
    }
    const std::string_view meant = nearest(known, first->str());
    throw FileError(file_, first->source().begin.line,
                    "unknown key " + quoted(first->str()) +
                        (meant.empty() ? "" : ", did you mean " + quoted(meant) + "?"));
}

void TomlTable::fail(std::string_view key, const std::string& reason) const {
    const toml::node* node = table_->get(key);
    const toml::node& blamed = node != nullptr ? *node : *table_;
    throw FileError(file_, blamed.source().begin.line, reason);
}

std::optional<std::int64_t> TomlTable::integer(std::string_view key, std::int64_t lowest,
                                               std::int64_t highest) const {
    const toml::node* node = table_->get(key);
    if (node == nullptr) {
        return std::nullopt;
    }
    const toml::value<std::int64_t>* value = node->as_integer();
    if (value == nullptr) {
        fail(key, quoted(key) + " must be a whole number");
    }
    if (value->get() < lowest || value->get() > highest) {
        fail(key,
             quoted(key) + " must be " + std::to_string(lowest) + " to " + std::to_string(highest));
    }
    return value->get();
}

std::int64_t TomlTable::required_integer(std::string_view key, std::int64_t lowest,
                                         std::int64_t highest) const {
    const auto value = integer(key, lowest, highest);
    if (!value) {
        fail(key, quoted(key) + " is missing");
    }
    return *value;
}

std::optional<std::string> TomlTable::text(std::string_view key, std::size_t longest) const {
    const toml::node* node = table_->get(key);
    if (node == nullptr) {
        return std::nullopt;
    }
    const toml::value<std::string>* value = node->as_string();
    if (value == nullptr) {
        fail(key, quoted(key) + " must be a text");
    }
    if (value->get().size() > longest) {
        fail(key, quoted(key) + " must have at most " + std::to_string(longest) + " characters");
    }
    return value->get();
}

std::string TomlTable::required_text(std::string_view key, std::size_t longest) const {
    const auto value = text(key, longest);
    if (!value) {
        fail(key, quoted(key) + " is missing");
    }
    return *value;
}

std::optional<bool> TomlTable::flag(std::string_view key) const {
    const toml::node* node = table_->get(key);
    if (node == nullptr) {
        return std::nullopt;
    }
    const toml::value<bool>* value = node->as_boolean();
    if (value == nullptr) {
        fail(key, quoted(key) + " must be true or false");
    }
    return value->get();
}

std::optional<std::chrono::microseconds> TomlTable::milliseconds(std::string_view key) const {
    const toml::node* node = table_->get(key);
    if (node == nullptr) {
        return std::nullopt;
    }
    if (!node->is_number()) {
        fail(key, quoted(key) + " must be a number of milliseconds");
    }
    const double value = node->value<double>().value_or(-1);
    if (!(value >= 0 && value <= longest_milliseconds)) {
        fail(key, quoted(key) + " must be 0 to 600000");
    }
    return std::chrono::microseconds(
        static_cast<std::chrono::microseconds::rep>(std::llround(value * 1000)));
}

std::optional<TomlTable> TomlTable::table(std::string_view key) const {
    const toml::node* node = table_->get(key);
    if (node == nullptr) {
        return std::nullopt;
    }
    if (node->as_table() == nullptr) {
        fail(key, quoted(key) + " must be a table");
    }
    return TomlTable(file_, *node->as_table());
}

std::vector<TomlTable> TomlTable::tables(std::string_view key) const {
    std::vector<TomlTable> found;
    const toml::node* node = table_->get(key);
    if (node == nullptr) {
        return found;
    }
    if (node->as_array() == nullptr) {
        fail(key, quoted(key) + " must be an array of tables");
    }
    for (const toml::node& element : *node->as_array()) {
        if (element.as_table() == nullptr) {
            fail(key, quoted(key) + " must be an array of tables");
        }
        found.emplace_back(file_, *element.as_table());
    }
    return found;
}

std::vector<std::int64_t> TomlTable::integers(std::string_view key, std::int64_t lowest,
                                              std::int64_t highest) const {
    std::vector<std::int64_t> found;
    const toml::node* node = table_->get(key);
    if (node == nullptr) {
        return found;
    }
    if (node->as_array() == nullptr) {
        fail(key, quoted(key) + " must be an array");
    }
    for (const toml::node& element : *node->as_array()) {
        const toml::value<std::int64_t>* value = element.as_integer();
        if (value == nullptr || value->get() < lowest || value->get() > highest) {
            fail(key, quoted(key) + " must hold numbers from " + std::to_string(lowest) + " to " +
                          std::to_string(highest));
        }
        found.push_back(value->get());
    }
    return found;
}

std::vector<std::string> TomlTable::texts(std::string_view key) const {
    std::vector<std::string> found;
    const toml::node* node = table_->get(key);
    if (node == nullptr) {
        return found;
    }
    if (node->as_array() == nullptr) {
        fail(key, quoted(key) + " must be an array");
    }
    for (const toml::node& element : *node->as_array()) {
        const toml::value<std::string>* value = element.as_string();
        if (value == nullptr || value->get().size() > longest_text) {
            fail(key, quoted(key) + " must hold texts");
        }
        found.push_back(value->get());
    }
    return found;
}

}  // namespace zelf
