/// \file
/// Reading of TOML with every value checked: type, range, and that no key is left over.
#pragma once

#include "common/file_error.h"

#include <toml++/toml.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace zelf {

/// Reads and parses a whole file. Throws FileError with the line of the first mistake.
toml::table parse_toml_file(const std::string& file);

/// One table of a parsed file. Every getter gives none when the key is absent and throws FileError
/// when its value is not what is asked for. The table must outlive this.
class TomlTable {
  public:
    TomlTable(std::string file, const toml::table& table)
        : file_(std::move(file)), table_(&table) {}

    std::optional<std::int64_t> integer(std::string_view key, std::int64_t lowest,
                                        std::int64_t highest);
    std::int64_t required_integer(std::string_view key, std::int64_t lowest, std::int64_t highest);
    std::optional<std::string> text(std::string_view key, std::size_t longest);
    std::string required_text(std::string_view key, std::size_t longest);
    std::optional<bool> flag(std::string_view key);
    /// A time in milliseconds, whole or with decimals, up to ten minutes.
    std::optional<std::chrono::microseconds> milliseconds(std::string_view key);
    std::optional<TomlTable> table(std::string_view key);
    /// An array of tables; empty when absent.
    std::vector<TomlTable> tables(std::string_view key);
    std::vector<std::int64_t> integers(std::string_view key, std::int64_t lowest,
                                       std::int64_t highest);
    std::vector<std::string> texts(std::string_view key);

    bool has(std::string_view key) const { return table_->contains(key); }

    /// Throws when the table has a key that nobody asked for.
    void finish() const;

    /// Throws with the line of `key`, or of the table when it has no such key.
    [[noreturn]] void fail(std::string_view key, const std::string& reason) const;

  private:
    const toml::node* find(std::string_view key);

    std::string file_;
    const toml::table* table_;
    std::set<std::string, std::less<>> asked_;
};

}  // namespace zelf
