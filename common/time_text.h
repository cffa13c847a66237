/// \file
/// Points in time, in milliseconds since the epoch, as texts.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace zelf {

constexpr std::int64_t milliseconds_of_a_second = 1000;

enum class TimeZone { local, utc };

std::int64_t milliseconds_now();

/// "2026-11-20 17:18:07.123"; "@SECONDS.123" where the system has no date for it.
std::string time_text(std::int64_t milliseconds, TimeZone zone);

/// "2026-11-20T17:18:07.123Z".
std::string iso_time_text(std::int64_t milliseconds);

/// Reads "2026-11-20", with " 17", " 17:18", " 17:18:07" or " 17:18:07.123" behind it ('T' may
/// stand for the blank, and a 'Z' at the end for UTC); "17:18", "17:18:07" or "17:18:07.123" of the
/// day of `now`; or "@SECONDS" and "@SECONDS.123".
std::optional<std::int64_t> parse_time(const std::string& text, TimeZone zone,
                                       std::int64_t now = milliseconds_now());

}  // namespace zelf
