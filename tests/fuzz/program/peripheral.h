/// \file
/// A peripheral as the program meets it: what it is made of, and what it answers when all is well.
#pragma once

#include "support/fake_usb.h"
#include "support/fuzz_input.h"

#include <cstdint>
#include <deque>

/// What an interrupt transfer gives, and when.
struct TimedReport {
    std::int64_t at;
    int rc = 0;
    Bytes bytes;
};

/// Kinds of commands, 0 to `command_kinds` - 1.
constexpr unsigned int command_kinds = 10;
unsigned int kind_of(const Bytes& command);

class Peripheral {
  public:
    /// Describes the device as the input says; zeros stand for a good flash device.
    Peripheral(FakeUsbDevice& device, FuzzInput& input);

    /// The report that a command is answered with, empty for none.
    Bytes report_on(const Bytes& command) const;
    /// The data for the command that came last.
    Bytes data();
    void take(const Bytes& command);
    const Bytes& last_command() const { return last_command_; }

    /// With the report's ID in front when the device uses IDs.
    Bytes with_id(std::uint8_t id, const Bytes& bytes) const;
    /// The message without the report's ID.
    Bytes without_id(const Bytes& message) const;

    FakeUsbDevice& usb;
    std::deque<TimedReport> reports;
    bool is_claimed = false;
    bool is_gone = false;
    bool is_erased = false;  ///< an erase command came since the device was opened

  private:
    void describe_raw_configuration(FuzzInput& input);
    Bytes next_block();

    bool uses_ids_ = false;
    std::uint8_t features_ = 0;
    Bytes last_command_;
    int blocks_read_ = 0;
};
