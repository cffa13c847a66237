/// \file
/// The clock of a virtual run. It stands still but for what the program waits for, and a
/// microsecond each time that somebody looks at it.
#pragma once

#include <cstdint>

namespace zelfsim::virtual_time {

/// Nanoseconds; of the clock that is never set, unless said otherwise.
using Instant = std::int64_t;

constexpr Instant microsecond = 1'000;
constexpr Instant millisecond = 1'000'000;
constexpr Instant second = 1'000'000'000;

/// The first instant of a state directory, or of a run without one: 2026-01-01 00:00:00 UTC. Far
/// from what the real steady clock shows, so that no device waits for an instant of the other kind.
constexpr Instant origin = 1'767'225'600 * second;

/// The clocks a deadline can be told by.
enum class ClockKind { steady, wall };

struct Deadline {
    ClockKind clock = ClockKind::steady;
    Instant at = 0;
};

class VirtualClock {
  public:
    /// Goes on from the last instant that the state directory carries, and keeps it up to date
    /// there, so that a process that is killed leaves it too. `directory` may be null.
    void start(const char* directory);

    Instant now() const { return now_; }
    Instant begin() const { return begin_; }
    Instant wall() const { return now_ + wall_offset_; }
    void set_wall(Instant instant) { wall_offset_ = instant - now_; }
    void step_wall(Instant by) { wall_offset_ += by; }

    /// The steady instant of a deadline, as the wall clock stands now.
    Instant due(const Deadline& deadline) const {
        return deadline.clock == ClockKind::wall ? deadline.at - wall_offset_ : deadline.at;
    }

    /// Never goes back.
    void go_on_to(Instant instant);

  private:
    Instant now_ = origin;
    Instant begin_ = origin;
    Instant wall_offset_ = 0;
    Instant* kept_ = nullptr;  // in the state directory
};

}  // namespace zelfsim::virtual_time
