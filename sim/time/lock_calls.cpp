// Mutexes and condition variables. A mutex stays the C library's own: it is tried, and while
// somebody else has it the thread waits for the next time it is given back. Nothing inside the C
// library waits for a condition variable, so these are the scheduler's alone.
#include "time/exported.h"
#include "time/kernel_call.h"
#include "time/scheduler.h"
#include "time/times.h"
#include "time/verdict.h"

#include <pthread.h>

#include <string>

namespace zelfsim::virtual_time {

namespace {

int try_lock(pthread_mutex_t* mutex) {
    static const auto real = next<int (*)(pthread_mutex_t*)>("pthread_mutex_trylock");
    return real(mutex);
}

int give_back(pthread_mutex_t* mutex) {
    static const auto real = next<int (*)(pthread_mutex_t*)>("pthread_mutex_unlock");
    return real(mutex);
}

/// Whether the calling thread has a mutex of the kind that finds such errors.
bool would_lock_twice(const Call& call, const pthread_mutex_t* mutex) {
    constexpr int kind_mask = 3;
    return (mutex->__data.__kind & kind_mask) == PTHREAD_MUTEX_ERRORCHECK &&
           mutex->__data.__owner == call.thread().id;
}

int lock(const Call& call, pthread_mutex_t* mutex, const std::optional<Deadline>& deadline) {
    while (true) {
        const int result = try_lock(mutex);
        if (result != EBUSY || !call) {
            return result;
        }
        if (would_lock_twice(call, mutex)) {
            return EDEADLK;
        }
        if (call.scheduler().block(mutex, deadline) == Wake::too_late) {
            return ETIMEDOUT;
        }
    }
}

template <typename Time>
int lock_until(const char* name, pthread_mutex_t* mutex, clockid_t clock, const Time* time,
               const void* caller) {
    const Call call(name, mutex, caller);
    const auto kind = kind_of(clock);
    const auto instant = from_moment(*time);
    if (!kind || !instant) {
        return EINVAL;
    }
    return lock(call, mutex, Deadline{*kind, *instant});
}

int unlock(const Call& call, pthread_mutex_t* mutex) {
    const int result = give_back(mutex);
    if (call) {
        call.scheduler().tell_all(mutex);
    }
    return result;
}

int wait(const Call& call, pthread_cond_t* condition, pthread_mutex_t* mutex,
         const std::optional<Deadline>& deadline) {
    if (!call) {
        end_refused("pthread_cond_wait", " in a thread that is ending", nullptr);
    }
    const int result = unlock(call, mutex);
    if (result != 0) {
        return result;
    }
    const Wake wake = call.scheduler().block(condition, deadline);
    lock(call, mutex, std::nullopt);
    return wake == Wake::too_late ? ETIMEDOUT : 0;
}

template <typename Time>
int wait_until(const char* name, pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
               const Time* time, const void* caller) {
    const Call call(name, condition, caller);
    const auto kind = kind_of(clock);
    const auto instant = from_moment(*time);
    if (!kind || !instant) {
        return EINVAL;
    }
    return wait(call, condition, mutex, Deadline{*kind, *instant});
}

/// The clock that the condition variable was made for.
clockid_t clock_of(const pthread_cond_t* condition) {
    constexpr unsigned clock_mask = 2;
    return (condition->__data.__wrefs & clock_mask) != 0 ? CLOCK_MONOTONIC : CLOCK_REALTIME;
}

}  // namespace

}  // namespace zelfsim::virtual_time

using namespace zelfsim::virtual_time;

extern "C" {

ZELF_EXPORTED int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    const Call call("pthread_mutex_lock", mutex, ZELF_CALLER);
    return lock(call, mutex, std::nullopt);
}

ZELF_EXPORTED int pthread_mutex_trylock(pthread_mutex_t* mutex) noexcept {
    const Call call("pthread_mutex_trylock", mutex, ZELF_CALLER);
    return try_lock(mutex);
}

ZELF_EXPORTED int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
    const Call call("pthread_mutex_unlock", mutex, ZELF_CALLER);
    return unlock(call, mutex);
}

ZELF_EXPORTED int pthread_mutex_timedlock(pthread_mutex_t* mutex, const timespec* time) noexcept {
    return lock_until("pthread_mutex_timedlock", mutex, CLOCK_REALTIME, time, ZELF_CALLER);
}

ZELF_EXPORTED int pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock,
                                          const timespec* time) noexcept {
    return lock_until("pthread_mutex_clocklock", mutex, clock, time, ZELF_CALLER);
}

ZELF_EXPORTED int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    const Call call("pthread_cond_wait", condition, ZELF_CALLER);
    return wait(call, condition, mutex, std::nullopt);
}

ZELF_EXPORTED int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                         const timespec* time) {
    return wait_until("pthread_cond_timedwait", condition, mutex, clock_of(condition), time,
                      ZELF_CALLER);
}

ZELF_EXPORTED int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                         clockid_t clock, const timespec* time) {
    return wait_until("pthread_cond_clockwait", condition, mutex, clock, time, ZELF_CALLER);
}

ZELF_EXPORTED int pthread_cond_signal(pthread_cond_t* condition) noexcept {
    const Call call("pthread_cond_signal", condition, ZELF_CALLER);
    if (call) {
        call.scheduler().tell_one(condition);
    }
    return 0;
}

ZELF_EXPORTED int pthread_cond_broadcast(pthread_cond_t* condition) noexcept {
    const Call call("pthread_cond_broadcast", condition, ZELF_CALLER);
    if (call) {
        call.scheduler().tell_all(condition);
    }
    return 0;
}

// The names are the C library's.
#if defined(__i386__)
ZELF_EXPORTED int __pthread_mutex_timedlock64(pthread_mutex_t* mutex, const Timespec64* time) {
    return lock_until("pthread_mutex_timedlock", mutex, CLOCK_REALTIME, time, ZELF_CALLER);
}

ZELF_EXPORTED int __pthread_mutex_clocklock64(pthread_mutex_t* mutex, clockid_t clock,
                                              const Timespec64* time) {
    return lock_until("pthread_mutex_clocklock", mutex, clock, time, ZELF_CALLER);
}

ZELF_EXPORTED int __pthread_cond_timedwait64(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                             const Timespec64* time) {
    return wait_until("pthread_cond_timedwait", condition, mutex, clock_of(condition), time,
                      ZELF_CALLER);
}

ZELF_EXPORTED int __pthread_cond_clockwait64(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                             clockid_t clock, const Timespec64* time) {
    return wait_until("pthread_cond_clockwait", condition, mutex, clock, time, ZELF_CALLER);
}
#endif

}  // extern "C"
