#include "program/turns.h"

#include <sanitizer/common_interface_defs.h>
#include <ucontext.h>

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

namespace turns {
namespace {

/// A stack that is lent to one of the program's threads after the other.
struct Worker {
    std::function<void()> job;  ///< empty when it is idle
    std::function<std::int64_t()> due;
    ucontext_t context{};
    std::vector<char> stack = std::vector<char>(std::size_t{1} << 20);
};

/// The main thread's own stack, as the address sanitizer wants to hear of it.
struct MainStack {
    ucontext_t context{};
    const void* bottom = nullptr;
    std::size_t size = 0;
};

constexpr std::int64_t longest_wait_of_main = 1000;

std::int64_t time_now = 0;
MainStack main_stack;
Worker* current = nullptr;  ///< null while the main thread runs

std::vector<std::unique_ptr<Worker>>& workers() {
    static std::vector<std::unique_ptr<Worker>> list;
    return list;
}

void give_turn_to(Worker& worker) {
    void* fake_stack = nullptr;
    current = &worker;
    __sanitizer_start_switch_fiber(&fake_stack, worker.stack.data(), worker.stack.size());
    swapcontext(&main_stack.context, &worker.context);
    __sanitizer_finish_switch_fiber(fake_stack, nullptr, nullptr);
    current = nullptr;
}

void give_turn_to_main() {
    void* fake_stack = nullptr;
    Worker& self = *current;
    __sanitizer_start_switch_fiber(&fake_stack, main_stack.bottom, main_stack.size);
    swapcontext(&self.context, &main_stack.context);
    __sanitizer_finish_switch_fiber(fake_stack, &main_stack.bottom, &main_stack.size);
}

void work() {
    __sanitizer_finish_switch_fiber(nullptr, &main_stack.bottom, &main_stack.size);
    for (;;) {
        current->job();
        current->job = nullptr;
        give_turn_to_main();
    }
}

Worker& idle_worker() {
    for (const auto& worker : workers()) {
        if (!worker->job) {
            return *worker;
        }
    }
    Worker& worker = *workers().emplace_back(std::make_unique<Worker>());
    getcontext(&worker.context);
    worker.context.uc_stack.ss_sp = worker.stack.data();
    worker.context.uc_stack.ss_size = worker.stack.size();
    makecontext(&worker.context, work, 0);
    return worker;
}

void pass_until(std::int64_t end) {
    for (;;) {
        Worker* next = nullptr;
        std::int64_t earliest = end;
        for (const auto& worker : workers()) {
            const std::int64_t due = worker->job ? worker->due() : never;
            if (due <= earliest && (next == nullptr || due < earliest)) {
                next = worker.get();
                earliest = due;
            }
        }
        time_now = std::max(time_now, earliest);
        if (next == nullptr) {
            return;
        }
        give_turn_to(*next);
    }
}

}  // namespace

std::int64_t now() {
    return time_now;
}

void start(void* (*function)(void*), void* argument) {
    Worker& worker = idle_worker();
    worker.due = [] { return time_now; };
    worker.job = [function, argument] { function(argument); };
}

void sleep(long milliseconds) {
    const std::int64_t end = time_now + std::max(milliseconds, 0L);
    if (is_main_thread()) {
        pass_until(end);
    } else {
        wait([end] { return end; });
    }
}

void wait(std::function<std::int64_t()> due) {
    if (is_main_thread()) {
        pass_until(std::min(due(), time_now + longest_wait_of_main));
        return;
    }
    current->due = std::move(due);
    give_turn_to_main();
}

bool is_main_thread() {
    return current == nullptr;
}

int running() {
    return static_cast<int>(std::count_if(workers().begin(), workers().end(),
                                          [](const auto& worker) { return bool{worker->job}; }));
}

}  // namespace turns
