#include "support/clock_double.h"

#include <sys/time.h>

#include <atomic>
#include <ctime>

namespace {

constexpr std::int64_t running = -1;
std::atomic<std::int64_t> standing_at{running};
std::atomic<std::int16_t> zone{0};

}  // namespace

void clock_double_stands_at(std::int64_t milliseconds) {
    standing_at = milliseconds;
}

void clock_double_runs() {
    standing_at = running;
}

void clock_double_says_zone(std::int16_t minutes) {
    zone = minutes;
}

// Where times have 64 bits on a 32-bit system, the system's header gives this another name.
extern "C" int gettimeofday(timeval* time, void* time_zone) noexcept {
    const std::int64_t milliseconds = standing_at;
    if (milliseconds == running) {
        timespec now = {};
        clock_gettime(CLOCK_REALTIME, &now);
        *time = {now.tv_sec, static_cast<suseconds_t>(now.tv_nsec / 1000)};
    } else {
        *time = {static_cast<time_t>(milliseconds / 1000),
                 static_cast<suseconds_t>(milliseconds % 1000 * 1000)};
    }
    if (time_zone != nullptr) {
        *static_cast<struct timezone*>(time_zone) = {zone, 0};
    }
    return 0;
}
