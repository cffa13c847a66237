/// \file
/// Decides which thread goes on, and when the clock jumps. One thread runs at a time; only that one
/// touches what is here, so nothing is locked.
#pragma once

#include "time/chance.h"
#include "time/settings.h"
#include "time/virtual_clock.h"

#include <pthread.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace zelfsim::virtual_time {

/// A call of the platform: its name, what it is about, and where it came from.
struct Place {
    const char* call = nullptr;  ///< null: the program's own code
    const void* object = nullptr;
    const void* caller = nullptr;
};

/// How a wait came out.
enum class Wake { told, too_late, interrupted };

struct Thread {
    enum class State { ready, blocked, ended };

    unsigned number = 1;  ///< 1 is the main thread
    pthread_t handle{};
    std::atomic<int> id{0};  ///< the kernel's
    std::atomic<std::uint32_t> turn{0};
    State state = State::ready;
    std::uint64_t ready_since = 0;
    Instant held_until = 0;  ///< when ready, it goes on no earlier
    const void* awaited = nullptr;
    std::optional<Deadline> deadline;
    Wake wake = Wake::told;
    std::uint64_t signals = 0;  ///< on their way, by number
    bool detached = false;
    Place place;
    Place start;  ///< who started it
    unsigned starter = 0;
    void* (*routine)(void*) = nullptr;
    void* argument = nullptr;
};

class Scheduler {
  public:
    /// Never destroyed: threads wait here until the process is gone.
    static Scheduler& instance();

    /// In a process that was just forked: as if it had been started by itself.
    static void begin_again();

    /// The calling thread; null for one that virtual time does not know.
    static Thread* self();

    /// Says what the calling thread is about; here another one may go on.
    void enter(const Place& place);

    /// The calling thread lets all others that can go on before it.
    void give_way();

    /// The calling thread waits until `awaited` is told, the deadline has passed or, when the wait
    /// is `interruptible`, a signal was handled. May come back as told without reason.
    Wake block(const void* awaited, const std::optional<Deadline>& deadline,
               bool interruptible = false);
    /// Ends the waits for `awaited`: all of them, or one.
    void tell_all(const void* awaited);
    void tell_one(const void* awaited);

    Thread& add_thread(const Place& start);
    /// The thread that could not be started after all.
    void forget(Thread& thread);
    Thread* find(pthread_t handle);
    Thread& main_thread() { return *threads_.front(); }
    /// From inside a thread that was added, first and last.
    void begin(Thread& thread);
    void end();

    /// Sends a signal: at once to the calling thread, to another one for when it goes on.
    int send(Thread& target, int signal);

    VirtualClock& clock() { return clock_; }
    /// The present, a little later each time.
    Instant look_at_clock();

  private:
    Scheduler();
    ~Scheduler() = default;

    void make_ready(Thread& thread, Wake wake);
    void hold_up(Thread& thread);
    void expire();
    /// The next one among the threads that can go on; null when there is none.
    Thread* choose();
    Thread& choose_or_jump();
    std::optional<Instant> next_event();
    void jump_to(Instant instant);
    void take_turn(Thread& thread);
    void bury();
    void deliver_signals(Thread& thread);
    void count_step(const Place& place);

    void look_for_busy_thread();
    [[noreturn]] void end_deadlocked();
    [[noreturn]] void end_livelocked(const std::string& reason);
    std::string describe(const Thread& thread) const;
    std::string instant_text() const;

    static constexpr std::size_t remembered = 12;
    struct Step {
        unsigned thread = 0;
        Place place;
    };

    Settings settings_;
    Chance chance_;
    VirtualClock clock_;
    std::vector<std::unique_ptr<Thread>> threads_;
    unsigned started_ = 1;
    std::uint64_t turns_ = 0;
    std::uint64_t steps_ = 0;          // since the clock jumped
    std::uint64_t steps_of_turn_ = 0;  // since the thread's turn began
    std::atomic<std::uint32_t> all_steps_{0};
    std::uint32_t steps_at_last_look_ = 0;
    std::array<Step, remembered> last_steps_;
    std::size_t next_step_ = 0;
    Thread* ending_ = nullptr;  // has passed its turn on, and is on its way out
};

/// Stands in a function of the platform for as long as the call lasts.
class Call {
  public:
    Call(const char* name, const void* object, const void* caller);
    ~Call();
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    /// False in a thread that virtual time does not know; the call is then the C library's.
    explicit operator bool() const { return thread_ != nullptr; }
    Thread& thread() const { return *thread_; }
    Scheduler& scheduler() const { return Scheduler::instance(); }

  private:
    Thread* thread_;
    Place before_;
};

}  // namespace zelfsim::virtual_time
