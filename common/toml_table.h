/// \file
/// Reading of TOML with every key and every value checked: that the key is known, type, range.
#pragma once

#include "common/file_error.h"

#include <toml++/toml.h>

#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <span>
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

    using Keys = std::span<const std::string_view>;

    /// Throws when the table has a key that none of the lists names, with the nearest one that a
    /// list does name. To be asked first: a wrongly written key is then told as such, and not as
    /// the absence of the right one.
    void know_only(std::initializer_list<Keys> known) const;

    std::optional<std::int64_t> integer(std::string_view key, std::int64_t lowest,
                                        std::int64_t highest) const;
    std::int64_t required_integer(std::string_view key, std::int64_t lowest,
                                  std::int64_t highest) const;
    std::optional<std::string> text(std::string_view key, std::size_t longest) const;
    std::string required_text(std::string_view key, std::size_t longest) const;
    std::optional<bool> flag(std::string_view key) const;
    /// A time in milliseconds, whole or with decimals, up to ten minutes.
    std::optional<std::chrono::microseconds> milliseconds(std::string_view key) const;
    std::optional<TomlTable> table(std::string_view key) const;
    /// An array of tables; empty when absent.
    std::vector<TomlTable> tables(std::string_view key) const;
    std::vector<std::int64_t> integers(std::string_view key, std::int64_t lowest,
                                       std::int64_t highest) const;
    std::vector<std::string> texts(std::string_view key) const;

    bool has(std::string_view key) const { return table_->contains(key); }

    /// Throws with the line of `key`, or of the table when it has no such key.
    [[noreturn]] void fail(std::string_view key, const std::string& reason) const;

  private:
    std::string file_;
    const toml::table* table_;
};

}  // namespace zelf
