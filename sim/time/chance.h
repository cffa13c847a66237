/// \file
/// The choices of a virtual run: a sequence of numbers that its seed decides.
#pragma once

#include <cstdint>

namespace zelfsim::virtual_time {

class Chance {
  public:
    explicit Chance(std::uint64_t seed) : state_(seed) {}

    /// A number below `count`.
    std::uint64_t below(std::uint64_t count) { return next() % count; }
    bool one_in(std::uint64_t count) { return below(count) == 0; }

  private:
    // SplitMix64.
    std::uint64_t next() {
        state_ += 0x9E3779B97F4A7C15U;
        std::uint64_t mixed = state_;
        mixed = (mixed ^ mixed >> 30U) * 0xBF58476D1CE4E5B9U;
        mixed = (mixed ^ mixed >> 27U) * 0x94D049BB133111EBU;
        return mixed ^ mixed >> 31U;
    }

    std::uint64_t state_;
};

}  // namespace zelfsim::virtual_time
