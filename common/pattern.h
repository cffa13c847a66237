/// \file
/// Regular expressions over texts that others wrote: the time for one is linear in the text, and
/// neither its length nor its content costs the stack.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace re2 {
class RE2;
}

namespace zelf {

/// What a pattern matched: 0 is the whole of it, 1 the first group.
class Match {
  public:
    Match() = default;
    explicit Match(std::vector<std::optional<std::string>> parts) : parts_(std::move(parts)) {}

    bool has(std::size_t group) const { return group < parts_.size() && parts_[group]; }
    /// Empty for a group that had no part in it.
    std::string operator[](std::size_t group) const {
        return has(group) ? *parts_[group] : std::string();
    }

  private:
    std::vector<std::optional<std::string>> parts_;
};

class Pattern {
  public:
    /// In Perl's notation, without look-ahead and references back; a byte is a character. Throws
    /// std::invalid_argument for what is no pattern.
    explicit Pattern(const char* notation);
    ~Pattern();
    Pattern(Pattern&&) noexcept;
    Pattern& operator=(Pattern&&) noexcept;

    /// The whole text.
    std::optional<Match> match(std::string_view text) const;
    /// The first place in the text.
    std::optional<Match> find(std::string_view text) const;
    /// All places, each behind the one before.
    std::vector<Match> find_all(std::string_view text) const;

  private:
    std::unique_ptr<re2::RE2> expression_;
};

}  // namespace zelf
