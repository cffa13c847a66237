/// \file
/// Types that all of the simulated bus shares.
#pragma once

#include "common/bytes.h"
#include "common/file_error.h"

#include <chrono>

namespace zelfsim {

/// Never set back, and shared by all processes of one boot.
using Clock = std::chrono::steady_clock;
using TimePoint = std::chrono::time_point<Clock, std::chrono::microseconds>;
using Duration = std::chrono::microseconds;

using zelf::Bytes;
using zelf::ByteView;
using zelf::FileError;

/// The present time at the resolution of the bus.
inline TimePoint now() {
    return std::chrono::time_point_cast<Duration>(Clock::now());
}

}  // namespace zelfsim
