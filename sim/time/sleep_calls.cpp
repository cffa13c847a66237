// What sleeps. `select` and `poll` are sleeps when they are given no descriptor.
#include "time/exported.h"
#include "time/kernel_call.h"
#include "time/scheduler.h"
#include "time/times.h"
#include "time/verdict.h"

#include <poll.h>
#include <sched.h>
#include <sys/select.h>
#include <sys/syscall.h>

#include <algorithm>
#include <string>

namespace zelfsim::virtual_time {

namespace {

/// Sleeps; gives what was left when a signal was handled, else none.
std::optional<Instant> sleep_until(const Call& call, const std::optional<Deadline>& deadline) {
    Scheduler& scheduler = call.scheduler();
    while (true) {
        switch (scheduler.block(nullptr, deadline, true)) {
            case Wake::too_late:
                return std::nullopt;
            case Wake::interrupted: {
                const Instant left =
                    deadline ? scheduler.clock().due(*deadline) - scheduler.clock().now() : 0;
                return std::max(left, Instant{0});
            }
            case Wake::told:
                break;
        }
    }
}

Deadline after(const Call& call, Instant duration) {
    return {ClockKind::steady, call.scheduler().clock().now() + duration};
}

/// A thread that virtual time does not know does not sleep.
void insist(const Call& call, const char* name, const void* caller) {
    if (!call) {
        end_refused(name, " in a thread that is ending", caller);
    }
}

template <typename Time>
int sleep_for(const char* name, const Time* duration, Time* left, const void* caller) {
    const Call call(name, nullptr, caller);
    insist(call, name, caller);
    const auto length = from_moment(*duration);
    if (!length) {
        return EINVAL;
    }
    const auto rest = sleep_until(call, after(call, *length));
    if (!rest) {
        return 0;
    }
    if (left != nullptr) {
        put_moment(*rest, *left);
    }
    return EINTR;
}

template <typename Time>
int sleep_clock(const char* name, clockid_t clock, int flags, const Time* time, Time* left,
                const void* caller) {
    const auto kind = kind_of(clock);
    if (!kind) {
        end_refused(name, " of clock " + std::to_string(clock), caller);
    }
    if ((flags & TIMER_ABSTIME) == 0) {
        return sleep_for(name, time, left, caller);
    }
    const Call call(name, nullptr, caller);
    insist(call, name, caller);
    const auto instant = from_moment(*time);
    if (!instant) {
        return EINVAL;
    }
    return sleep_until(call, Deadline{*kind, *instant}) ? EINTR : 0;
}

/// Ends the run when a set names a descriptor.
void refuse_descriptors(const char* name, int count, const fd_set* set, const void* caller) {
    for (int descriptor = 0; set != nullptr && descriptor < count; ++descriptor) {
        if (FD_ISSET(descriptor, set)) {
            end_refused(name, " of descriptor " + std::to_string(descriptor), caller);
        }
    }
}

/// `duration` is none for ever. Gives what is left in `rest`.
int select_nothing(const Call& call, const std::optional<Instant>& duration, Instant& rest) {
    const auto left =
        sleep_until(call, duration ? std::optional(after(call, *duration)) : std::nullopt);
    rest = left.value_or(0);
    return left ? failure(EINTR) : 0;
}

template <typename Value>
int select_values(const char* name, int count, fd_set* in, fd_set* out, fd_set* other, Value* time,
                  const void* caller) {
    const Call call(name, nullptr, caller);
    insist(call, name, caller);
    for (const fd_set* set : {in, out, other}) {
        refuse_descriptors(name, count, set, caller);
    }
    std::optional<Instant> duration;
    if (time != nullptr) {
        duration = from_value(*time);
        if (!duration) {
            return failure(EINVAL);
        }
    }
    Instant rest = 0;
    const int result = select_nothing(call, duration, rest);
    if (time != nullptr) {
        const int error = errno;
        put_value(rest, *time);
        errno = error;
    }
    return result;
}

/// Whether an output takes something is asked of the system, which does not wait for it. What comes
/// in depends on others, whose time is not ours.
int poll_descriptors(pollfd* descriptors, nfds_t count, int milliseconds, const void* caller) {
    const Call call("poll", nullptr, caller);
    insist(call, "poll", caller);
    for (nfds_t index = 0; index < count; ++index) {
        if (descriptors[index].fd >= 0 && descriptors[index].events != POLLOUT) {
            end_refused("poll", " of descriptor " + std::to_string(descriptors[index].fd), caller);
        }
        descriptors[index].revents = 0;
    }
    if (count > 0) {
        const long ready = kernel(SYS_poll, descriptors, count, 0);
        if (ready != 0) {
            return static_cast<int>(ready);
        }
    }
    Instant rest = 0;
    return select_nothing(
        call, milliseconds < 0 ? std::nullopt : std::optional(milliseconds * millisecond), rest);
}

}  // namespace

}  // namespace zelfsim::virtual_time

using namespace zelfsim::virtual_time;

extern "C" {

ZELF_EXPORTED int nanosleep(const timespec* duration, timespec* left) {
    return failure(sleep_for("nanosleep", duration, left, ZELF_CALLER));
}

ZELF_EXPORTED int clock_nanosleep(clockid_t clock, int flags, const timespec* time,
                                  timespec* left) {
    return sleep_clock("clock_nanosleep", clock, flags, time, left, ZELF_CALLER);
}

ZELF_EXPORTED int usleep(useconds_t microseconds) {
    const Timespec64 duration{microseconds / 1'000'000,
                              static_cast<std::int32_t>(microseconds % 1'000'000 * 1000), 0};
    return failure(sleep_for<Timespec64>("usleep", &duration, nullptr, ZELF_CALLER));
}

ZELF_EXPORTED unsigned sleep(unsigned seconds) {
    const Timespec64 duration{seconds, 0, 0};
    Timespec64 left{};
    return sleep_for("sleep", &duration, &left, ZELF_CALLER) == 0
               ? 0
               : static_cast<unsigned>(left.tv_sec);
}

ZELF_EXPORTED int select(int count, fd_set* in, fd_set* out, fd_set* other, timeval* time) {
    return select_values("select", count, in, out, other, time, ZELF_CALLER);
}

ZELF_EXPORTED int poll(pollfd* descriptors, nfds_t count, int milliseconds) {
    return poll_descriptors(descriptors, count, milliseconds, ZELF_CALLER);
}

ZELF_EXPORTED int sched_yield() noexcept {
    const Call call("sched_yield", nullptr, ZELF_CALLER);
    if (call) {
        call.scheduler().give_way();
    }
    return 0;
}

// The names are the C library's.
ZELF_EXPORTED int __poll_chk(pollfd* descriptors, nfds_t count, int milliseconds,
                             std::size_t /*size*/) {
    return poll_descriptors(descriptors, count, milliseconds, ZELF_CALLER);
}

#if defined(__i386__)
ZELF_EXPORTED int __nanosleep64(const Timespec64* duration, Timespec64* left) {
    return failure(sleep_for("nanosleep", duration, left, ZELF_CALLER));
}

ZELF_EXPORTED int __clock_nanosleep_time64(clockid_t clock, int flags, const Timespec64* time,
                                           Timespec64* left) {
    return sleep_clock("clock_nanosleep", clock, flags, time, left, ZELF_CALLER);
}

ZELF_EXPORTED int __select64(int count, fd_set* in, fd_set* out, fd_set* other, Timeval64* time) {
    return select_values("select", count, in, out, other, time, ZELF_CALLER);
}
#endif

}  // extern "C"
