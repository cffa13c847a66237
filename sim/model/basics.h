/// \file
/// Types that all of the simulated bus shares.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace zelfsim {

/// Never set back, and shared by all processes of one boot.
using Clock = std::chrono::steady_clock;
using TimePoint = std::chrono::time_point<Clock, std::chrono::microseconds>;
using Duration = std::chrono::microseconds;

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

/// The present time at the resolution of the bus.
inline TimePoint now() {
    return std::chrono::time_point_cast<Duration>(Clock::now());
}

/// A file of the simulated bus that cannot be used; `what()` is "FILE:LINE: reason", or
/// "FILE: reason" where no line is to blame.
class FileError : public std::runtime_error {
  public:
    FileError(const std::string& file, unsigned line, const std::string& reason)
        : std::runtime_error(file + (line > 0 ? ":" + std::to_string(line) : "") + ": " + reason) {}
};

}  // namespace zelfsim
