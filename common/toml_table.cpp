#include "common/toml_table.h"

#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>

namespace zelf {

namespace {

constexpr double kLongestMilliseconds = 600000;
constexpr std::size_t kLongestText = 4096;

std::string quoted(std::string_view key) {
    return "\"" + std::string(key) + "\"";
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

const toml::node* TomlTable::find(std::string_view key) {
    asked_.emplace(key);
    return table_->get(key);
}

void TomlTable::fail(std::string_view key, const std::string& reason) const {
    const toml::node* node = table_->get(key);
    const toml::node& blamed = node != nullptr ? *node : *table_;
    throw FileError(file_, blamed.source().begin.line, reason);
}

std::optional<std::int64_t> TomlTable::integer(std::string_view key, std::int64_t lowest,
                                               std::int64_t highest) {
    const toml::node* node = find(key);
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
                                         std::int64_t highest) {
    const auto value = integer(key, lowest, highest);
    if (!value) {
        fail(key, quoted(key) + " is missing");
    }
    return *value;
}

std::optional<std::string> TomlTable::text(std::string_view key, std::size_t longest) {
    const toml::node* node = find(key);
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

std::string TomlTable::required_text(std::string_view key, std::size_t longest) {
    const auto value = text(key, longest);
    if (!value) {
        fail(key, quoted(key) + " is missing");
    }
    return *value;
}

std::optional<bool> TomlTable::flag(std::string_view key) {
    const toml::node* node = find(key);
    if (node == nullptr) {
        return std::nullopt;
    }
    const toml::value<bool>* value = node->as_boolean();
    if (value == nullptr) {
        fail(key, quoted(key) + " must be true or false");
    }
    return value->get();
}

std::optional<std::chrono::microseconds> TomlTable::milliseconds(std::string_view key) {
    const toml::node* node = find(key);
    if (node == nullptr) {
        return std::nullopt;
    }
    if (!node->is_number()) {
        fail(key, quoted(key) + " must be a number of milliseconds");
    }
    const double value = node->value<double>().value_or(-1);
    if (!(value >= 0 && value <= kLongestMilliseconds)) {
        fail(key, quoted(key) + " must be 0 to 600000");
    }
    return std::chrono::microseconds(
        static_cast<std::chrono::microseconds::rep>(std::llround(value * 1000)));
}

std::optional<TomlTable> TomlTable::table(std::string_view key) {
    const toml::node* node = find(key);
    if (node == nullptr) {
        return std::nullopt;
    }
    if (node->as_table() == nullptr) {
        fail(key, quoted(key) + " must be a table");
    }
    return TomlTable(file_, *node->as_table());
}

std::vector<TomlTable> TomlTable::tables(std::string_view key) {
    std::vector<TomlTable> found;
    const toml::node* node = find(key);
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
                                              std::int64_t highest) {
    std::vector<std::int64_t> found;
    const toml::node* node = find(key);
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

std::vector<std::string> TomlTable::texts(std::string_view key) {
    std::vector<std::string> found;
    const toml::node* node = find(key);
    if (node == nullptr) {
        return found;
    }
    if (node->as_array() == nullptr) {
        fail(key, quoted(key) + " must be an array");
    }
    for (const toml::node& element : *node->as_array()) {
        const toml::value<std::string>* value = element.as_string();
        if (value == nullptr || value->get().size() > kLongestText) {
            fail(key, quoted(key) + " must hold texts");
        }
        found.push_back(value->get());
    }
    return found;
}

void TomlTable::finish() const {
    for (const auto& [key, node] : *table_) {
        if (!asked_.contains(key.str())) {
            throw FileError(file_, key.source().begin.line, "unknown key " + quoted(key.str()));
        }
    }
}

}  // namespace zelf
