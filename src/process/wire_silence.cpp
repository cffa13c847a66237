#include "process/wire_silence.h"

#include <atomic>
#include <ctime>

namespace {

std::atomic<std::uint32_t> last_movement{0};
static_assert(std::atomic<std::uint32_t>::is_always_lock_free);

}  // namespace

std::uint32_t steady_milliseconds() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint32_t>(now.tv_sec) * 1000U +
           static_cast<std::uint32_t>(now.tv_nsec / 1000000);
}

void note_wire_movement() {
    last_movement = steady_milliseconds();
}

std::uint32_t wire_silence() {
    // Read before the clock: a movement of another thread in between must not be in the future.
    const std::uint32_t earlier = last_movement;
    return steady_milliseconds() - earlier;
}
