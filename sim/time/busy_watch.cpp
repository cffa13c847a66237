#include "time/busy_watch.h"

#include "time/kernel_call.h"

#include <sys/syscall.h>

#include <array>
#include <csignal>
#include <ctime>

namespace zelfsim::virtual_time {

namespace {

void (*look_at_processor_time)() = nullptr;

void handle(int /*signal*/) {
    look_at_processor_time();
}

}  // namespace

void watch_processor_time(long seconds, void (*look)()) {
    // The last one, which programs use least.
    const int number = SIGRTMAX;
    look_at_processor_time = look;
    struct sigaction action = {};
    action.sa_handler = handle;
    action.sa_flags = SA_RESTART;
    sigaction(number, &action, nullptr);
    sigevent event{};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = number;
    int timer = 0;
    // Interval and first time, as the kernel takes them: seconds, nanoseconds, twice.
    const std::array<long, 4> times{seconds, 0, seconds, 0};
    if (kernel(SYS_timer_create, CLOCK_PROCESS_CPUTIME_ID, &event, &timer) == 0) {
        kernel(SYS_timer_settime, timer, 0, times.data(), nullptr);
    }
}

}  // namespace zelfsim::virtual_time
