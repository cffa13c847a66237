// What shows a clock. The names that end in 64 are for programs with 64-bit time on 32-bit
// processors; there the plain ones take 32-bit time.
#include "time/exported.h"
#include "time/scheduler.h"
#include "time/times.h"
#include "time/verdict.h"

#include <sys/timeb.h>

#include <string>

namespace zelfsim::virtual_time {

std::optional<ClockKind> kind_of(clockid_t clock) {
    switch (clock) {
        case CLOCK_REALTIME:
        case CLOCK_REALTIME_COARSE:
        case CLOCK_TAI:
        case CLOCK_REALTIME_ALARM:
            return ClockKind::wall;
        case CLOCK_MONOTONIC:
        case CLOCK_MONOTONIC_RAW:
        case CLOCK_MONOTONIC_COARSE:
        case CLOCK_BOOTTIME:
        case CLOCK_BOOTTIME_ALARM:
        case CLOCK_PROCESS_CPUTIME_ID:
        case CLOCK_THREAD_CPUTIME_ID:
            return ClockKind::steady;
        default:
            return std::nullopt;
    }
}

namespace {

/// Looks at the clock from inside a call.
Instant look(const Call& call, ClockKind kind) {
    // A thread on its way out looks without moving the clock.
    VirtualClock& clock = call.scheduler().clock();
    if (call) {
        call.scheduler().look_at_clock();
    }
    return kind == ClockKind::wall ? clock.wall() : clock.now();
}

template <typename Moment>
int get_clock(const char* name, clockid_t clock, Moment* moment, const void* caller) {
    const Call call(name, nullptr, caller);
    const auto kind = kind_of(clock);
    if (!kind) {
        end_refused(name, " of clock " + std::to_string(clock), caller);
    }
    Instant instant = look(call, *kind);
    if (clock == CLOCK_PROCESS_CPUTIME_ID || clock == CLOCK_THREAD_CPUTIME_ID) {
        instant -= call.scheduler().clock().begin();
    }
    return failure(put_moment(instant, *moment));
}

template <typename Moment>
int get_resolution(const char* name, clockid_t clock, Moment* moment, const void* caller) {
    const Call call(name, nullptr, caller);
    if (!kind_of(clock)) {
        return failure(EINVAL);
    }
    if (moment != nullptr) {
        moment->tv_sec = 0;
        moment->tv_nsec = 1;
    }
    return 0;
}

template <typename Value>
int get_day(const char* name, Value* value, void* zone, const void* caller) {
    const Call call(name, nullptr, caller);
    if (zone != nullptr) {
        *static_cast<struct timezone*>(zone) = {};
    }
    return value == nullptr ? 0 : failure(put_value(look(call, ClockKind::wall), *value));
}

template <typename Seconds>
Seconds get_seconds(const char* name, Seconds* seconds, const void* caller) {
    const Call call(name, nullptr, caller);
    Seconds now = 0;
    if (failure(put_seconds(look(call, ClockKind::wall), now)) != 0) {
        return -1;
    }
    if (seconds != nullptr) {
        *seconds = now;
    }
    return now;
}

}  // namespace

}  // namespace zelfsim::virtual_time

using namespace zelfsim::virtual_time;

extern "C" {

ZELF_EXPORTED int clock_gettime(clockid_t clock, timespec* moment) noexcept {
    return get_clock("clock_gettime", clock, moment, ZELF_CALLER);
}

ZELF_EXPORTED int clock_getres(clockid_t clock, timespec* moment) noexcept {
    return get_resolution("clock_getres", clock, moment, ZELF_CALLER);
}

ZELF_EXPORTED int gettimeofday(timeval* value, void* zone) noexcept {
    return get_day("gettimeofday", value, zone, ZELF_CALLER);
}

ZELF_EXPORTED time_t time(time_t* seconds) noexcept {
    return get_seconds("time", seconds, ZELF_CALLER);
}

// There is none for 64-bit time on 32-bit processors.
ZELF_EXPORTED int ftime(timeb* now) {
    const Call call("ftime", nullptr, ZELF_CALLER);
    const Instant instant = look(call, ClockKind::wall);
    *now = {};
    now->millitm = static_cast<unsigned short>(instant % second / millisecond);
    return failure(put_seconds(instant, now->time));
}

ZELF_EXPORTED int timespec_get(timespec* moment, int base) noexcept {
    return base == TIME_UTC && get_clock("timespec_get", CLOCK_REALTIME, moment, ZELF_CALLER) == 0
               ? base
               : 0;
}

ZELF_EXPORTED clock_t clock() noexcept {
    timespec moment = {};
    get_clock("clock", CLOCK_PROCESS_CPUTIME_ID, &moment, ZELF_CALLER);
    return static_cast<clock_t>(moment.tv_sec * CLOCKS_PER_SEC + moment.tv_nsec / microsecond);
}

// The names are the C library's.
#if defined(__i386__)
ZELF_EXPORTED int __clock_gettime64(clockid_t clock, Timespec64* moment) {
    return get_clock("clock_gettime", clock, moment, ZELF_CALLER);
}

ZELF_EXPORTED int __clock_getres64(clockid_t clock, Timespec64* moment) {
    return get_resolution("clock_getres", clock, moment, ZELF_CALLER);
}

ZELF_EXPORTED int __gettimeofday64(Timeval64* value, void* zone) {
    return get_day("gettimeofday", value, zone, ZELF_CALLER);
}

ZELF_EXPORTED std::int64_t __time64(std::int64_t* seconds) {
    return get_seconds("time", seconds, ZELF_CALLER);
}

ZELF_EXPORTED int __timespec_get64(Timespec64* moment, int base) {
    return base == TIME_UTC && get_clock("timespec_get", CLOCK_REALTIME, moment, ZELF_CALLER) == 0
               ? base
               : 0;
}
#endif

}  // extern "C"
