#include "common/pattern.h"

#include <re2/re2.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace zelf {

namespace {

using re2::RE2;
using re2::StringPiece;

RE2::Options options() {
    RE2::Options all(RE2::Latin1);
    all.set_log_errors(false);
    return all;
}

std::vector<StringPiece> room_for_groups(const RE2& expression) {
    return std::vector<StringPiece>(static_cast<std::size_t>(expression.NumberOfCapturingGroups()) +
                                    1);
}

bool run(const RE2& expression, std::string_view text, std::size_t from, RE2::Anchor anchor,
         std::vector<StringPiece>& groups) {
    return expression.Match({text.data(), text.size()}, from, text.size(), anchor, groups.data(),
                            static_cast<int>(groups.size()));
}

Match taken(const std::vector<StringPiece>& groups) {
    std::vector<std::optional<std::string>> parts;
    parts.reserve(groups.size());
    for (const StringPiece& group : groups) {
        parts.push_back(group.data() != nullptr ? std::optional(group.as_string()) : std::nullopt);
    }
    return Match(std::move(parts));
}

std::optional<Match> single(const RE2& expression, std::string_view text, RE2::Anchor anchor) {
    std::vector<StringPiece> groups = room_for_groups(expression);
    return run(expression, text, 0, anchor, groups) ? std::optional(taken(groups)) : std::nullopt;
}

}  // namespace

Pattern::Pattern(const char* notation) : expression_(std::make_unique<RE2>(notation, options())) {
    if (!expression_->ok()) {
        throw std::invalid_argument("'" + std::string(notation) + "': " + expression_->error());
    }
}

Pattern::~Pattern() = default;
Pattern::Pattern(Pattern&&) noexcept = default;
Pattern& Pattern::operator=(Pattern&&) noexcept = default;

std::optional<Match> Pattern::match(std::string_view text) const {
    return single(*expression_, text, RE2::ANCHOR_BOTH);
}

std::optional<Match> Pattern::find(std::string_view text) const {
    return single(*expression_, text, RE2::UNANCHORED);
}

std::vector<Match> Pattern::find_all(std::string_view text) const {
    std::vector<Match> all;
    std::vector<StringPiece> groups = room_for_groups(*expression_);
    for (std::size_t at = 0;
         at <= text.size() && run(*expression_, text, at, RE2::UNANCHORED, groups);) {
        all.push_back(taken(groups));
        const auto begin = static_cast<std::size_t>(groups[0].data() - text.data());
        // Nothing matched is a place, too, and the next one lies behind it.
        at = begin + std::max<std::size_t>(groups[0].size(), 1);
    }
    return all;
}

}  // namespace zelf
