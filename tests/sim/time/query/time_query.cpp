// A program for virtual time to run: what it sees of clocks, threads and waits. Knows nothing of
// it.
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/select.h>
#include <sys/time.h>
#include <sys/timeb.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

long long seconds_of(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<long long>(now.tv_sec);
}

int show_clocks() {
    timeval day{};
    gettimeofday(&day, nullptr);
    timeb old{};
    // The C library has none for 64-bit time on 32-bit processors.
    if (sizeof(time_t) == sizeof(long)) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
        ftime(&old);
#pragma GCC diagnostic pop
    } else {
        old.time = std::time(nullptr);
    }
    std::printf("time %lld\ngettimeofday %lld\nftime %lld\nrealtime %lld\nmonotonic %lld\n",
                static_cast<long long>(std::time(nullptr)), static_cast<long long>(day.tv_sec),
                static_cast<long long>(old.time), seconds_of(CLOCK_REALTIME),
                seconds_of(CLOCK_MONOTONIC));
    return 0;
}

/// Runs `wait`, and prints how long that took by the steady clock.
template <typename Wait>
void measure(const char* name, const Wait& wait) {
    const auto begin = steady_clock::now();
    const int result = wait();
    const auto length = std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin);
    std::printf("%s %d %lld\n", name, result, static_cast<long long>(length.count()));
}

timespec after(clockid_t clock, long length) {
    timespec time{};
    clock_gettime(clock, &time);
    time.tv_sec += length;
    return time;
}

int show_waits() {
    measure("select", [] {
        timeval length{1, 500000};
        return select(0, nullptr, nullptr, nullptr, &length);
    });
    measure("poll", [] { return poll(nullptr, 0, 2000); });
    measure("nanosleep", [] {
        const timespec length{3, 0};
        return nanosleep(&length, nullptr);
    });
    measure("usleep", [] { return usleep(4000); });
    measure("sleep", [] { return static_cast<int>(sleep(5)); });
    measure("clock_nanosleep", [] {
        const timespec until = after(CLOCK_REALTIME, 6);
        return clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &until, nullptr);
    });
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
    pthread_mutex_lock(&mutex);
    measure("timedlock", [&] {
        const timespec until = after(CLOCK_REALTIME, 7);
        return pthread_mutex_timedlock(&mutex, &until) == ETIMEDOUT ? 1 : 0;
    });
    measure("timedwait", [&] {
        const timespec until = after(CLOCK_REALTIME, 8);
        return pthread_cond_timedwait(&condition, &mutex, &until) == ETIMEDOUT ? 1 : 0;
    });
    measure("clockwait", [&] {
        const timespec until = after(CLOCK_MONOTONIC, 9);
        return pthread_cond_clockwait(&condition, &mutex, CLOCK_MONOTONIC, &until) == ETIMEDOUT ? 1
                                                                                                : 0;
    });
    std::thread sleeper([] { std::this_thread::sleep_for(seconds(20)); });
    measure("timedjoin", [&] {
        const timespec until = after(CLOCK_REALTIME, 10);
        return pthread_timedjoin_np(sleeper.native_handle(), nullptr, &until) == ETIMEDOUT ? 1 : 0;
    });
    measure("join", [&] {
        sleeper.join();
        return 0;
    });
    return 0;
}

/// Prints in which order three threads came by.
int show_order() {
    std::mutex mutex;
    std::string order;
    std::vector<std::thread> threads;
    for (const char name : {'a', 'b', 'c'}) {
        threads.emplace_back([&, name] {
            for (int round = 0; round < 10; ++round) {
                const std::lock_guard lock(mutex);
                order += name;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::printf("%s\n", order.c_str());
    return 0;
}

/// Hands a number to and fro, with detached threads in between.
int show_exchange() {
    std::mutex mutex;
    std::condition_variable changed;
    int value = 0;
    std::thread other([&] {
        std::unique_lock lock(mutex);
        while (value < 20) {
            changed.wait(lock, [&] { return value % 2 == 1; });
            ++value;
            changed.notify_all();
        }
    });
    for (int round = 0; round < 10; ++round) {
        std::thread([] {}).detach();
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return value % 2 == 0; });
        ++value;
        changed.notify_all();
    }
    other.join();
    std::printf("%d\n", value);
    return 0;
}

volatile std::sig_atomic_t handled = 0;

int show_signal() {
    struct sigaction action = {};
    action.sa_handler = [](int) { handled = 1; };
    sigaction(SIGTERM, &action, nullptr);
    std::thread sender([] {
        std::this_thread::sleep_for(milliseconds(1500));
        kill(getpid(), SIGTERM);
    });
    measure("select", [] {
        timeval length{10, 0};
        const int result = select(0, nullptr, nullptr, nullptr, &length);
        std::printf("left %lld handled %d\n", static_cast<long long>(length.tv_sec), handled);
        return result < 0 && errno == EINTR ? 1 : 0;
    });
    sender.join();
    return 0;
}

int lock_twice() {
    pthread_mutex_t first = PTHREAD_MUTEX_INITIALIZER;
    static pthread_mutex_t second = PTHREAD_MUTEX_INITIALIZER;
    std::thread waiting([&] {
        pthread_mutex_lock(&second);
        std::this_thread::sleep_for(milliseconds(10));
        pthread_mutex_lock(&first);
    });
    pthread_mutex_lock(&first);
    std::this_thread::sleep_for(milliseconds(20));
    pthread_mutex_lock(&first);
    return 0;
}

[[noreturn]] int call_on_and_on() {
    while (true) {
        sched_yield();
    }
}

[[noreturn]] int compute_on_and_on() {
    volatile unsigned count = 0;
    while (true) {
        count = count + 1;
    }
}

[[noreturn]] int sleep_on_and_on() {
    while (true) {
        sleep(1);
    }
}

int use_semaphore() {
    sem_t semaphore{};
    sem_init(&semaphore, 0, 1);
    return sem_wait(&semaphore);
}

/// An empty pipe: one end is never ready, the other one always is.
std::array<int, 2> make_pipe() {
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) {
        std::abort();
    }
    return ends;
}

int select_descriptor() {
    const int end = make_pipe()[0];
    fd_set set;
    FD_ZERO(&set);
    FD_SET(end, &set);
    timeval length{0, 0};
    return select(end + 1, &set, nullptr, nullptr, &length);
}

int poll_descriptor() {
    const std::array<int, 2> ends = make_pipe();
    pollfd full{ends[1], POLLOUT, 0};
    pollfd empty{ends[0], POLLIN, 0};
    const int ready = poll(&full, 1, 1000);
    std::printf("%d %d\n", ready, full.revents == POLLOUT ? 1 : 0);
    std::fflush(stdout);
    return poll(&empty, 1, 0);
}

int fork_child() {
    return fork() < 0 ? 1 : 0;
}

int show_process() {
    std::printf("%d %p\n", getpid(), std::malloc(10));  // NOLINT: the address is the output
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::map<std::string, int (*)()> commands = {
        {"clocks", show_clocks},
        {"waits", show_waits},
        {"order", show_order},
        {"exchange", show_exchange},
        {"signal", show_signal},
        {"process", show_process},
        {"lock-twice", lock_twice},
        {"call-on-and-on", call_on_and_on},
        {"compute-on-and-on", compute_on_and_on},
        {"sleep-on-and-on", sleep_on_and_on},
        {"semaphore", use_semaphore},
        {"select-descriptor", select_descriptor},
        {"poll-descriptor", poll_descriptor},
        {"fork", fork_child},
    };
    const auto found = commands.find(argc > 1 ? argv[1] : "");
    if (found == commands.end()) {
        return 99;
    }
    return found->second();
}
