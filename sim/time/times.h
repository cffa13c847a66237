/// \file
/// The C library's times, in both widths, and the scheduler's.
#pragma once

#include "time/virtual_clock.h"

#include <sys/time.h>

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <limits>
#include <optional>

namespace zelfsim::virtual_time {

/// As the calls take them whose name ends in 64, in programs for 32-bit processors.
struct Timespec64 {
    std::int64_t tv_sec;
    std::int32_t tv_nsec;
    std::int32_t padding;
};
struct Timeval64 {
    std::int64_t tv_sec;
    std::int64_t tv_usec;
};

/// None for a time that is none.
template <typename Time>
std::optional<Instant> from_moment(const Time& moment) {
    if (moment.tv_sec < 0 || moment.tv_nsec < 0 || moment.tv_nsec >= second) {
        return std::nullopt;
    }
    constexpr std::int64_t longest = std::numeric_limits<Instant>::max() / second / 2;
    const std::int64_t seconds = moment.tv_sec < longest ? std::int64_t{moment.tv_sec} : longest;
    return seconds * second + moment.tv_nsec;
}

template <typename Value>
std::optional<Instant> from_value(const Value& value) {
    constexpr std::int64_t microseconds_of_a_second = 1'000'000;
    // More than a second in the second field is taken, as the kernel does.
    if (value.tv_sec < 0 || value.tv_usec < 0) {
        return std::nullopt;
    }
    const std::int64_t microseconds = value.tv_usec;
    return from_moment(
        Timespec64{value.tv_sec + microseconds / microseconds_of_a_second,
                   static_cast<std::int32_t>(microseconds % microseconds_of_a_second * 1000), 0});
}

/// 0, or EOVERFLOW when the seconds do not fit.
template <typename Seconds>
int put_seconds(Instant instant, Seconds& seconds) {
    const std::int64_t whole = instant / second;
    if (whole > std::numeric_limits<Seconds>::max()) {
        return EOVERFLOW;
    }
    seconds = static_cast<Seconds>(whole);
    return 0;
}

template <typename Time>
int put_moment(Instant instant, Time& moment) {
    moment.tv_nsec = static_cast<decltype(moment.tv_nsec)>(instant % second);
    return put_seconds(instant, moment.tv_sec);
}

template <typename Value>
int put_value(Instant instant, Value& value) {
    value.tv_usec = static_cast<decltype(value.tv_usec)>(instant % second / microsecond);
    return put_seconds(instant, value.tv_sec);
}

/// The clock's kind; none for one that virtual time does not know.
std::optional<ClockKind> kind_of(clockid_t clock);

/// What a call of the C library gives for an error number: -1, with `errno` set.
inline int failure(int error) {
    if (error != 0) {
        errno = error;
        return -1;
    }
    return 0;
}

}  // namespace zelfsim::virtual_time
