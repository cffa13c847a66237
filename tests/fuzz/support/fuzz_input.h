/// \file
/// The fuzzer's bytes, taken from front to end, so that a longer input goes on where a shorter one
/// ended. Behind the end there are zeros: what zero stands for is what happens by default.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

class FuzzInput {
  public:
    FuzzInput(const std::uint8_t* data, std::size_t size) : at_(data), left_(size) {}

    std::size_t left() const { return left_; }
    std::uint8_t byte() {
        if (left_ == 0) {
            return 0;
        }
        --left_;
        return *at_++;
    }
    std::uint16_t word() {
        const unsigned int low = byte();
        return static_cast<std::uint16_t>(low | static_cast<unsigned int>(byte()) << 8);
    }
    /// 0 to `count` - 1.
    unsigned int below(unsigned int count) { return byte() % count; }
    /// At most `count` bytes.
    std::vector<std::uint8_t> bytes(std::size_t count) {
        const std::size_t taken = std::min(count, left_);
        std::vector<std::uint8_t> result(at_, at_ + taken);
        at_ += taken;
        left_ -= taken;
        return result;
    }
    /// All that is left, up to a zero byte.
    std::string text() {
        const std::uint8_t* const end = std::find(at_, at_ + left_, std::uint8_t{0});
        return {at_, end};
    }

  private:
    const std::uint8_t* at_;
    std::size_t left_;
};
