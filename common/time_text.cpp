#include "common/time_text.h"

#include "common/pattern.h"
#include "common/printed.h"

#include <chrono>
#include <ctime>
#include <limits>

namespace zelf {

namespace {

constexpr int first_year_of_tm = 1900;

struct Fields {
    int year, month, day, hour, minute, second;
};

Fields utc_fields(std::int64_t seconds) {
    const std::chrono::sys_seconds time{std::chrono::seconds(seconds)};
    const auto day = std::chrono::floor<std::chrono::days>(time);
    const std::chrono::year_month_day date(day);
    const auto in_day = static_cast<int>((time - day).count());
    return {static_cast<int>(date.year()),
            static_cast<int>(static_cast<unsigned>(date.month())),
            static_cast<int>(static_cast<unsigned>(date.day())),
            in_day / 3600,
            in_day / 60 % 60,
            in_day % 60};
}

/// Empty where the system's own times end.
std::optional<Fields> local_fields(std::int64_t seconds) {
    if (seconds > std::numeric_limits<std::time_t>::max()) {
        return std::nullopt;
    }
    const auto time = static_cast<std::time_t>(seconds);
    std::tm local = {};
    if (localtime_r(&time, &local) == nullptr) {
        return std::nullopt;
    }
    return Fields{local.tm_year + first_year_of_tm,
                  local.tm_mon + 1,
                  local.tm_mday,
                  local.tm_hour,
                  local.tm_min,
                  local.tm_sec};
}

std::string fields_text(const Fields& at, const char* between, int milliseconds) {
    return printed("%04d-%02d-%02d%s%02d:%02d:%02d.%03d", at.year, at.month, at.day, between,
                   at.hour, at.minute, at.second, milliseconds);
}

std::optional<std::int64_t> seconds_of(const Fields& at, TimeZone zone) {
    const std::chrono::year_month_day date(std::chrono::year(at.year),
                                           std::chrono::month(static_cast<unsigned>(at.month)),
                                           std::chrono::day(static_cast<unsigned>(at.day)));
    if (!date.ok() || at.hour > 23 || at.minute > 59 || at.second > 59) {
        return std::nullopt;
    }
    if (zone == TimeZone::utc) {
        const auto time = std::chrono::sys_days(date) + std::chrono::hours(at.hour) +
                          std::chrono::minutes(at.minute) + std::chrono::seconds(at.second);
        return time.time_since_epoch().count();
    }
    std::tm local = {};
    local.tm_year = at.year - first_year_of_tm;
    local.tm_mon = at.month - 1;
    local.tm_mday = at.day;
    local.tm_hour = at.hour;
    local.tm_min = at.minute;
    local.tm_sec = at.second;
    local.tm_isdst = -1;
    const std::time_t time = mktime(&local);
    return time == -1 ? std::nullopt : std::optional<std::int64_t>(time);
}

/// The digits behind a decimal point, at most three, as milliseconds.
std::int64_t fraction(std::string digits) {
    digits.resize(3, '0');
    return std::stoi(digits);
}

int number_or_zero(const std::string& digits) {
    return digits.empty() ? 0 : std::stoi(digits);
}

}  // namespace

std::string time_text(std::int64_t milliseconds, TimeZone zone) {
    const std::int64_t seconds = milliseconds / milliseconds_of_a_second;
    const auto rest = static_cast<int>(milliseconds % milliseconds_of_a_second);
    const auto fields =
        zone == TimeZone::utc ? std::optional(utc_fields(seconds)) : local_fields(seconds);
    return fields ? fields_text(*fields, " ", rest)
                  : printed("@%lld.%03d", static_cast<long long>(seconds), rest);
}

std::string iso_time_text(std::int64_t milliseconds) {
    return fields_text(utc_fields(milliseconds / milliseconds_of_a_second), "T",
                       static_cast<int>(milliseconds % milliseconds_of_a_second)) +
           "Z";
}

std::int64_t milliseconds_now() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

std::optional<std::int64_t> parse_time(const std::string& text, TimeZone zone, std::int64_t now) {
    static const Pattern since_epoch(R"(@(\d{1,10})(?:\.(\d{1,3}))?)");
    static const Pattern time_of_day(R"(\d\d:\d\d(?::\d\d(?:\.\d{1,3})?)?Z?)");
    static const Pattern date_and_time(
        R"((\d{4})-(\d\d)-(\d\d)(?:[ T](\d\d)(?::(\d\d)(?::(\d\d)(?:\.(\d{1,3}))?)?)?(Z)?)?)");
    if (const auto parts = since_epoch.match(text)) {
        return std::stoll((*parts)[1]) * milliseconds_of_a_second + fraction((*parts)[2]);
    }
    if (time_of_day.match(text)) {
        const std::string today = time_text(now, text.back() == 'Z' ? TimeZone::utc : zone);
        return parse_time(today.substr(0, today.find(' ') + 1) + text, zone, now);
    }
    const auto found = date_and_time.match(text);
    if (!found) {
        return std::nullopt;
    }
    const Match& parts = *found;
    const auto seconds =
        seconds_of({std::stoi(parts[1]), std::stoi(parts[2]), std::stoi(parts[3]),
                    number_or_zero(parts[4]), number_or_zero(parts[5]), number_or_zero(parts[6])},
                   parts.has(8) ? TimeZone::utc : zone);
    if (!seconds) {
        return std::nullopt;
    }
    return *seconds * milliseconds_of_a_second + fraction(parts[7]);
}

}  // namespace zelf
