/// \file
/// What a virtual run is asked for, in the environment of the program.
#pragma once

#include "time/virtual_clock.h"

#include <cstdint>
#include <optional>

namespace zelfsim::virtual_time {

/// A step of the wall clock.
struct ClockStep {
    Instant after = 0;  ///< of the run
    Instant by = 0;     ///< forward when positive
};

struct Settings {
    std::uint64_t seed = 0;         ///< 0: the plain order
    std::optional<Instant> epoch;   ///< what the wall clock shows at the start
    Instant limit = 0;              ///< the longest run
    Instant longest_hold_up = 0;    ///< of a thread that could go on, with a seed
    std::uint64_t most_steps = 0;   ///< at one standstill of the clock
    long longest_busy = 0;          ///< seconds of processor time without a call, about
    std::optional<ClockStep> step;  ///< of the wall clock

    /// Ends the process with a line on standard error when a variable cannot be read.
    static Settings from_environment();
};

}  // namespace zelfsim::virtual_time
