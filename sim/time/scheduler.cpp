#include "time/scheduler.h"

#include "time/busy_watch.h"
#include "time/exported.h"
#include "time/kernel_call.h"
#include "time/verdict.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <utility>

namespace zelfsim::virtual_time {

namespace {

/// How seldom a thread is put off where it could have gone on, in a run with a seed.
constexpr std::uint64_t switch_one_in = 4;
/// How seldom a thread that could go on is held up, as on a busy machine, and for how long at most.
constexpr std::uint64_t held_up_one_in = 16;
constexpr Instant short_hold_up = 20 * millisecond;
constexpr std::uint64_t held_up_long_one_in = 1024;
/// In the plain order a thread that never waits gives way after so many calls.
constexpr std::uint64_t longest_turn = 1000;

// The model is the one for objects that are there from the start.
__attribute__((tls_model("initial-exec"))) thread_local Thread* current = nullptr;

void wait_for_turn(Thread& thread) {
    while (thread.turn.exchange(0, std::memory_order_acquire) == 0) {
        kernel(SYS_futex, &thread.turn, FUTEX_WAIT_PRIVATE, 0, nullptr, nullptr, 0);
    }
}

void give_turn(Thread& thread) {
    thread.turn.store(1, std::memory_order_release);
    kernel(SYS_futex, &thread.turn, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

bool is_ignored(int signal) {
    struct sigaction action = {};
    sigaction(signal, nullptr, &action);
    return (action.sa_flags & SA_SIGINFO) == 0 &&
           (action.sa_handler == SIG_IGN ||
            (action.sa_handler == SIG_DFL &&
             (signal == SIGCHLD || signal == SIGURG || signal == SIGWINCH || signal == SIGCONT)));
}

/// For a program that never calls anything. Another object may have called something before.
__attribute__((constructor)) void begin_virtual_time() {
    Scheduler::instance();
}

}  // namespace

Scheduler& Scheduler::instance() {
    alignas(Scheduler) static unsigned char memory[sizeof(Scheduler)];
    static Scheduler* const scheduler = new (memory) Scheduler;
    return *scheduler;
}

void Scheduler::begin_again() {
    Scheduler* const scheduler = &instance();
    scheduler->~Scheduler();
    new (scheduler) Scheduler;
}

Scheduler::Scheduler() : settings_(Settings::from_environment()), chance_(settings_.seed) {
    clock_.start(std::getenv("ZELFWSIM_STATE"));
    if (settings_.epoch) {
        clock_.set_wall(*settings_.epoch);
    }
    threads_.push_back(std::make_unique<Thread>());
    Thread& main = main_thread();
    main.handle = pthread_self();
    main.id = static_cast<int>(kernel(SYS_gettid));
    current = &main;
    watch_processor_time(settings_.longest_busy, [] { instance().look_for_busy_thread(); });
}

Thread* Scheduler::self() {
    static Scheduler& scheduler = instance();
    static_cast<void>(scheduler);
    return current;
}

Instant Scheduler::look_at_clock() {
    clock_.go_on_to(clock_.now() + microsecond);
    return clock_.now();
}

std::string Scheduler::instant_text() const {
    char text[32];
    const Instant elapsed = (clock_.now() - clock_.begin()) / microsecond;
    std::snprintf(text, sizeof text, "%lld.%06lld s", static_cast<long long>(elapsed / 1'000'000),
                  static_cast<long long>(elapsed % 1'000'000));
    return text;
}

void Scheduler::count_step(const Place& place) {
    last_steps_[next_step_] = {current->number, place};
    next_step_ = (next_step_ + 1) % remembered;
    ++steps_of_turn_;
    all_steps_.store(all_steps_ + 1);
    if (++steps_ > settings_.most_steps) {
        end_livelocked(std::to_string(settings_.most_steps) + " calls and nobody waited");
    }
}

void Scheduler::enter(const Place& place) {
    current->place = place;
    count_step(place);
    expire();
    const bool put_off =
        settings_.seed != 0 ? chance_.one_in(switch_one_in) : steps_of_turn_ > longest_turn;
    if (put_off) {
        give_way();
    }
}

void Scheduler::give_way() {
    Thread& thread = *current;
    make_ready(thread, Wake::told);
    Thread& chosen = choose_or_jump();
    if (&chosen != &thread) {
        give_turn(chosen);
        take_turn(thread);
        deliver_signals(thread);
    }
    steps_of_turn_ = 0;
}

Wake Scheduler::block(const void* awaited, const std::optional<Deadline>& deadline,
                      bool interruptible) {
    Thread& thread = *current;
    thread.awaited = awaited;
    thread.deadline = deadline;
    thread.state = Thread::State::blocked;
    Thread& chosen = choose_or_jump();
    if (&chosen != &thread) {
        give_turn(chosen);
        take_turn(thread);
    }
    steps_of_turn_ = 0;
    thread.awaited = nullptr;
    const Wake wake = thread.wake;
    deliver_signals(thread);
    // A wait that cannot be interrupted is one that is looked at again.
    return wake == Wake::interrupted && !interruptible ? Wake::told : wake;
}

void Scheduler::make_ready(Thread& thread, Wake wake) {
    thread.state = Thread::State::ready;
    thread.ready_since = ++turns_;
    thread.wake = wake;
    thread.deadline.reset();
    if (settings_.seed != 0) {
        hold_up(thread);
    }
}

void Scheduler::hold_up(Thread& thread) {
    Instant longest = 0;
    if (chance_.one_in(held_up_one_in)) {
        longest = std::min(short_hold_up, settings_.longest_hold_up);
    } else if (chance_.one_in(held_up_long_one_in)) {
        longest = settings_.longest_hold_up;
    }
    if (longest > 0) {
        thread.held_until =
            clock_.now() + static_cast<Instant>(chance_.below(static_cast<std::uint64_t>(longest)));
    }
}

void Scheduler::tell_all(const void* awaited) {
    for (const auto& thread : threads_) {
        if (thread->state == Thread::State::blocked && thread->awaited == awaited) {
            make_ready(*thread, Wake::told);
        }
    }
}

void Scheduler::tell_one(const void* awaited) {
    std::uint64_t waiting = 0;
    Thread* chosen = nullptr;
    for (const auto& thread : threads_) {
        if (thread->state == Thread::State::blocked && thread->awaited == awaited) {
            ++waiting;
            const bool better = settings_.seed == 0 ? waiting == 1 : chance_.one_in(waiting);
            chosen = better ? thread.get() : chosen;
        }
    }
    if (chosen != nullptr) {
        make_ready(*chosen, Wake::told);
    }
}

void Scheduler::expire() {
    if (settings_.step && clock_.now() - clock_.begin() >= settings_.step->after) {
        clock_.step_wall(settings_.step->by);
        settings_.step.reset();
    }
    for (const auto& thread : threads_) {
        if (thread->state == Thread::State::blocked && thread->deadline &&
            clock_.due(*thread->deadline) <= clock_.now()) {
            make_ready(*thread, Wake::too_late);
        }
    }
}

std::optional<Instant> Scheduler::next_event() {
    std::optional<Instant> next;
    for (const auto& thread : threads_) {
        std::optional<Instant> due;
        if (thread->state == Thread::State::ready) {
            due = thread->held_until;
        } else if (thread->state == Thread::State::blocked && thread->deadline) {
            due = clock_.due(*thread->deadline);
        }
        if (due) {
            next = std::min(next.value_or(*due), *due);
        }
    }
    if (next && settings_.step) {
        next = std::min(*next, clock_.begin() + settings_.step->after);
    }
    return next;
}

void Scheduler::jump_to(Instant instant) {
    clock_.go_on_to(instant);
    steps_ = 0;
    if (clock_.now() - clock_.begin() > settings_.limit) {
        end_livelocked("the run takes more than " + std::to_string(settings_.limit / second) +
                       " seconds");
    }
    expire();
}

Thread* Scheduler::choose() {
    // Without allocation: a fault report may run here.
    std::uint64_t ready = 0;
    Thread* chosen = nullptr;
    for (const auto& thread : threads_) {
        if (thread->state != Thread::State::ready || thread->held_until > clock_.now()) {
            continue;
        }
        ++ready;
        const bool better = settings_.seed != 0
                                ? chance_.one_in(ready)
                                : chosen == nullptr || thread->ready_since < chosen->ready_since;
        chosen = better ? thread.get() : chosen;
    }
    return chosen;
}

Thread& Scheduler::choose_or_jump() {
    while (true) {
        if (Thread* chosen = choose()) {
            return *chosen;
        }
        const auto next = next_event();
        if (!next) {
            end_deadlocked();
        }
        jump_to(*next);
    }
}

void Scheduler::take_turn(Thread& thread) {
    wait_for_turn(thread);
    bury();
}

/// A thread that has ended still gives back what the C library holds for it. Until it has, what the
/// next one is given would depend on the machine.
void Scheduler::bury() {
    Thread* ending = std::exchange(ending_, nullptr);
    if (ending == nullptr) {
        return;
    }
    while (kernel(SYS_tgkill, kernel(SYS_getpid), ending->id.load(), 0) == 0) {
        kernel(SYS_sched_yield);
    }
    if (ending->detached) {
        static const auto real = next<int (*)(pthread_t, void**)>("pthread_join");
        real(ending->handle, nullptr);
        forget(*ending);
    }
}

Thread& Scheduler::add_thread(const Place& start) {
    threads_.push_back(std::make_unique<Thread>());
    Thread& thread = *threads_.back();
    thread.number = ++started_;
    thread.ready_since = ++turns_;
    thread.start = start;
    thread.starter = current->number;
    return thread;
}

void Scheduler::forget(Thread& thread) {
    threads_.erase(std::find_if(threads_.begin(), threads_.end(),
                                [&](const auto& entry) { return entry.get() == &thread; }));
}

Thread* Scheduler::find(pthread_t handle) {
    for (const auto& thread : threads_) {
        if (pthread_equal(thread->handle, handle) != 0 &&
            !(thread->state == Thread::State::ended && thread->detached)) {
            return thread.get();
        }
    }
    return nullptr;
}

void Scheduler::begin(Thread& thread) {
    thread.id = static_cast<int>(kernel(SYS_gettid));
    take_turn(thread);
    current = &thread;
    steps_of_turn_ = 0;
    deliver_signals(thread);
}

void Scheduler::end() {
    Thread& thread = *current;
    thread.state = Thread::State::ended;
    thread.place = {};
    tell_all(&thread);
    Thread& chosen = choose_or_jump();
    ending_ = &thread;
    current = nullptr;
    give_turn(chosen);
}

void Scheduler::deliver_signals(Thread& thread) {
    const std::uint64_t signals = std::exchange(thread.signals, 0);
    for (int signal = 1; signal < 64; ++signal) {
        if ((signals >> static_cast<unsigned>(signal) & 1U) != 0) {
            kernel(SYS_tgkill, kernel(SYS_getpid), thread.id.load(), signal);
        }
    }
}

int Scheduler::send(Thread& target, int signal) {
    target.signals |= std::uint64_t{1} << static_cast<unsigned>(signal);
    if (&target == current) {
        deliver_signals(target);
    } else if (target.state == Thread::State::blocked && !is_ignored(signal)) {
        make_ready(target, Wake::interrupted);
    }
    return 0;
}

std::string Scheduler::describe(const Thread& thread) const {
    std::string text = "zelfwsim:   thread " + std::to_string(thread.number) + ": ";
    if (thread.place.call == nullptr) {
        text += "in its own code";
    } else {
        text += thread.place.call;
        if (thread.place.object != nullptr) {
            char object[32];
            std::snprintf(object, sizeof object, " of %p", thread.place.object);
            text += object;
        }
        text += ", called from " + place_of(thread.place.caller);
    }
    if (thread.starter != 0) {
        text += ", started by thread " + std::to_string(thread.starter) + " from " +
                place_of(thread.start.caller);
    }
    return text + "\n";
}

/// In a signal handler, in any thread.
void Scheduler::look_for_busy_thread() {
    const std::uint32_t steps = all_steps_;
    if (steps == std::exchange(steps_at_last_look_, steps)) {
        end_livelocked("no call for " + std::to_string(settings_.longest_busy) +
                       " seconds of processor time");
    }
}

void Scheduler::end_deadlocked() {
    std::string text = "zelfwsim: deadlock after " + instant_text() + ": no thread can go on\n";
    for (const auto& thread : threads_) {
        if (thread->state != Thread::State::ended) {
            text += describe(*thread);
        }
    }
    tell(text);
    end_run(deadlock);
}

void Scheduler::end_livelocked(const std::string& reason) {
    std::string text =
        "zelfwsim: livelock after " + instant_text() + ": " + reason + "; the last calls:\n";
    for (std::size_t index = 0; index < remembered; ++index) {
        const Step& step = last_steps_[(next_step_ + index) % remembered];
        if (step.place.call != nullptr) {
            Thread shown;
            shown.number = step.thread;
            shown.place = step.place;
            text += describe(shown);
        }
    }
    tell(text);
    end_run(livelock);
}

Call::Call(const char* name, const void* object, const void* caller) : thread_(Scheduler::self()) {
    if (thread_ != nullptr) {
        before_ = thread_->place;
        scheduler().enter({name, object, caller});
    }
}

Call::~Call() {
    if (thread_ != nullptr) {
        thread_->place = before_;
    }
}

}  // namespace zelfsim::virtual_time

/// For who forks the program instead of starting it, and finds this by its name.
extern "C" ZELF_EXPORTED void zelfwsim_time_begin_again() {
    zelfsim::virtual_time::Scheduler::begin_again();
}
