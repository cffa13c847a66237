// Threads: their beginning, their end, and who they are.
#include "time/exported.h"
#include "time/kernel_call.h"
#include "time/scheduler.h"
#include "time/times.h"
#include "time/verdict.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <utility>

namespace zelfsim::virtual_time {

namespace {

/// The process's number, the same in every run.
constexpr pid_t process_number = 1000;

void* run_thread(void* raw) {
    auto* thread = static_cast<Thread*>(raw);
    Scheduler::instance().begin(*thread);
    void* result = thread->routine(thread->argument);
    Scheduler::instance().end();
    return result;
}

int create(const Call& call, pthread_t* handle, const pthread_attr_t* attributes,
           const Place& start, void* (*routine)(void*), void* argument) {
    static const auto real =
        next<int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>("pthread_create");
    Thread& thread = call.scheduler().add_thread(start);
    thread.routine = routine;
    thread.argument = argument;
    // Every thread is one that can be joined, so that its end can be waited for.
    int detached = PTHREAD_CREATE_JOINABLE;
    auto* const changed = const_cast<pthread_attr_t*>(attributes);
    if (changed != nullptr) {
        pthread_attr_getdetachstate(changed, &detached);
        pthread_attr_setdetachstate(changed, PTHREAD_CREATE_JOINABLE);
    }
    thread.detached = detached == PTHREAD_CREATE_DETACHED;
    const int result = real(&thread.handle, attributes, run_thread, &thread);
    if (changed != nullptr) {
        pthread_attr_setdetachstate(changed, detached);
    }
    if (result != 0) {
        call.scheduler().forget(thread);
        return result;
    }
    *handle = thread.handle;
    return 0;
}

/// Joins a thread that has ended.
int take_result(const Call& call, Thread& thread, void** result) {
    static const auto real = next<int (*)(pthread_t, void**)>("pthread_join");
    const int code = real(thread.handle, result);
    call.scheduler().forget(thread);
    return code;
}

int join(const Call& call, pthread_t handle, void** result,
         const std::optional<Deadline>& deadline) {
    Thread* const thread = call ? call.scheduler().find(handle) : nullptr;
    if (thread == nullptr || thread->detached) {
        return thread == nullptr ? ESRCH : EINVAL;
    }
    if (thread == &call.thread()) {
        return EDEADLK;
    }
    while (thread->state != Thread::State::ended) {
        if (call.scheduler().block(thread, deadline) == Wake::too_late) {
            return ETIMEDOUT;
        }
    }
    return take_result(call, *thread, result);
}

template <typename Time>
int join_until(const char* name, pthread_t handle, void** result, clockid_t clock, const Time* time,
               const void* caller) {
    const Call call(name, nullptr, caller);
    const auto kind = kind_of(clock);
    const auto instant = time == nullptr ? std::nullopt : from_moment(*time);
    if (!kind || (time != nullptr && !instant)) {
        return EINVAL;
    }
    return join(call, handle, result,
                instant ? std::optional(Deadline{*kind, *instant}) : std::nullopt);
}

bool is_this_process(pid_t process) {
    return process == process_number || process == kernel(SYS_getpid);
}

}  // namespace

}  // namespace zelfsim::virtual_time

using namespace zelfsim::virtual_time;

extern "C" {

ZELF_EXPORTED int pthread_create(pthread_t* handle, const pthread_attr_t* attributes,
                                 void* (*routine)(void*), void* argument) noexcept {
    const Call call("pthread_create", nullptr, ZELF_CALLER);
    if (!call) {
        end_refused("pthread_create", " in a thread that is ending", ZELF_CALLER);
    }
    return create(call, handle, attributes, {"pthread_create", nullptr, ZELF_CALLER}, routine,
                  argument);
}

ZELF_EXPORTED int pthread_detach(pthread_t handle) noexcept {
    const Call call("pthread_detach", nullptr, ZELF_CALLER);
    Thread* const thread = call ? call.scheduler().find(handle) : nullptr;
    if (thread == nullptr || thread->detached) {
        return thread == nullptr ? ESRCH : EINVAL;
    }
    if (thread->state == Thread::State::ended) {
        return take_result(call, *thread, nullptr);
    }
    thread->detached = true;
    return 0;
}

ZELF_EXPORTED int pthread_join(pthread_t handle, void** result) {
    const Call call("pthread_join", nullptr, ZELF_CALLER);
    return join(call, handle, result, std::nullopt);
}

ZELF_EXPORTED int pthread_tryjoin_np(pthread_t handle, void** result) noexcept {
    const Call call("pthread_tryjoin_np", nullptr, ZELF_CALLER);
    const Thread* const thread = call ? call.scheduler().find(handle) : nullptr;
    const bool runs = thread != nullptr && thread->state != Thread::State::ended;
    return runs ? EBUSY : join(call, handle, result, std::nullopt);
}

ZELF_EXPORTED int pthread_timedjoin_np(pthread_t handle, void** result, const timespec* time) {
    return join_until("pthread_timedjoin_np", handle, result, CLOCK_REALTIME, time, ZELF_CALLER);
}

ZELF_EXPORTED int pthread_clockjoin_np(pthread_t handle, void** result, clockid_t clock,
                                       const timespec* time) {
    return join_until("pthread_clockjoin_np", handle, result, clock, time, ZELF_CALLER);
}

/// While one thread is in the routine, others that come wait for it.
ZELF_EXPORTED int pthread_once(pthread_once_t* control, void (*routine)()) {
    static const auto real = next<int (*)(pthread_once_t*, void (*)())>("pthread_once");
    static std::array<const void*, 16> under_way{};
    const Call call("pthread_once", control, ZELF_CALLER);
    if (!call) {
        return real(control, routine);
    }
    const auto find = [](const void* entry) {
        return std::find(under_way.begin(), under_way.end(), entry);
    };
    while (find(control) != under_way.end()) {
        call.scheduler().block(control, std::nullopt);
    }
    const auto place = find(nullptr);
    if (place == under_way.end()) {
        end_refused("pthread_once", " within more than 16 others", ZELF_CALLER);
    }
    // Also when the routine throws.
    const struct UnderWay {
        const void*& place;
        const Call& call;
        ~UnderWay() { call.scheduler().tell_all(std::exchange(place, nullptr)); }
    } under_way_now{* place = control, call};
    return real(control, routine);
}

ZELF_EXPORTED pid_t getpid() noexcept {
    return process_number;
}

ZELF_EXPORTED pid_t gettid() noexcept {
    const Thread* const thread = Scheduler::self();
    return process_number + (thread != nullptr ? static_cast<pid_t>(thread->number) - 1 : 0);
}

/// A signal for this process is one for its main thread, and handled when that goes on.
ZELF_EXPORTED int kill(pid_t process, int signal) noexcept {
    const Call call("kill", nullptr, ZELF_CALLER);
    if (!is_this_process(process) || !call || signal <= 0 || signal == SIGKILL ||
        signal == SIGSTOP || signal >= 64) {
        return failure(
            kernel(SYS_kill, is_this_process(process) ? kernel(SYS_getpid) : process, signal) == 0
                ? 0
                : errno);
    }
    return call.scheduler().send(call.scheduler().main_thread(), signal);
}

ZELF_EXPORTED int pthread_kill(pthread_t handle, int signal) noexcept {
    const Call call("pthread_kill", nullptr, ZELF_CALLER);
    Thread* const thread = call ? call.scheduler().find(handle) : nullptr;
    if (thread == nullptr || thread->state == Thread::State::ended) {
        return ESRCH;
    }
    if (signal < 0 || signal >= 64) {
        return EINVAL;
    }
    return signal == 0 ? 0 : call.scheduler().send(*thread, signal);
}

// The names are the C library's.
#if defined(__i386__)
ZELF_EXPORTED int __pthread_timedjoin_np64(pthread_t handle, void** result,
                                           const Timespec64* time) {
    return join_until("pthread_timedjoin_np", handle, result, CLOCK_REALTIME, time, ZELF_CALLER);
}

ZELF_EXPORTED int __pthread_clockjoin_np64(pthread_t handle, void** result, clockid_t clock,
                                           const Timespec64* time) {
    return join_until("pthread_clockjoin_np", handle, result, clock, time, ZELF_CALLER);
}
#endif

}  // extern "C"
