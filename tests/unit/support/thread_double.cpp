#include "support/thread_double.h"

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace {

struct Start {
    void* (*function)(void*);
    void* argument;
};

std::mutex lock;
std::condition_variable changed;
int result_of_creation = 0;
bool is_gate_shut = false;
int threads_created = 0;
int threads_running = 0;
int threads_unreclaimed = 0;

void* run(void* start) {
    const std::unique_ptr<Start> own(static_cast<Start*>(start));
    {
        std::unique_lock guard(lock);
        changed.wait(guard, [] { return !is_gate_shut; });
    }
    void* const value = own->function(own->argument);
    const std::scoped_lock guard(lock);
    --threads_running;
    changed.notify_all();
    return value;
}

}  // namespace

ThreadDouble::ThreadDouble() {
    const std::scoped_lock guard(lock);
    result_of_creation = 0;
    is_gate_shut = false;
    threads_created = 0;
    threads_unreclaimed = 0;
}

ThreadDouble::~ThreadDouble() {
    let_go();
}

void ThreadDouble::fail_with(int code) {
    const std::scoped_lock guard(lock);
    result_of_creation = code;
}

void ThreadDouble::hold_back() {
    const std::scoped_lock guard(lock);
    is_gate_shut = true;
}

void ThreadDouble::let_go() {
    const std::scoped_lock guard(lock);
    is_gate_shut = false;
    changed.notify_all();
}

int ThreadDouble::created() const {
    const std::scoped_lock guard(lock);
    return threads_created;
}

bool ThreadDouble::all_ended_within(int milliseconds) const {
    std::unique_lock guard(lock);
    // Against the system's clock: the thread sanitizer does not know the waits on the other one.
    return changed.wait_until(
        guard, std::chrono::system_clock::now() + std::chrono::milliseconds(milliseconds),
        [] { return threads_running == 0; });
}

int ThreadDouble::unreclaimed() const {
    const std::scoped_lock guard(lock);
    return threads_unreclaimed;
}

extern "C" {

// The names that the linker's --wrap gives.
int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __real_pthread_detach(pthread_t);
int __real_pthread_timedjoin_np(pthread_t, void**, const timespec*);

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*function)(void*), void* argument) {
    {
        const std::scoped_lock guard(lock);
        if (result_of_creation != 0) {
            return result_of_creation;
        }
        ++threads_created;
        ++threads_running;
        ++threads_unreclaimed;
    }
    auto start = std::make_unique<Start>(Start{function, argument});
    const int rc = __real_pthread_create(thread, attributes, run, start.get());
    if (rc == 0) {
        static_cast<void>(start.release());
    }
    return rc;
}

int __wrap_pthread_detach(pthread_t thread) {
    const int rc = __real_pthread_detach(thread);
    const std::scoped_lock guard(lock);
    threads_unreclaimed -= rc == 0 ? 1 : 0;
    return rc;
}

int __wrap_pthread_timedjoin_np(pthread_t thread, void** value, const timespec* deadline) {
    const int rc = __real_pthread_timedjoin_np(thread, value, deadline);
    const std::scoped_lock guard(lock);
    threads_unreclaimed -= rc == 0 ? 1 : 0;
    return rc;
}
}
