/// \file
/// One open device of a session whose status reports and data answers the fuzzer gives.
#pragma once

#include "session/zelflash.h"
#include "support/fake_usb.h"
#include "support/fuzz_input.h"

#include <array>
#include <deque>
#include <memory>

/// The device and its session live as long as the process.
class AnsweringDevice {
  public:
    using StatusReport = std::array<std::uint8_t, status_report_size>;

    /// The device, with an empty row and neither reports nor data in store.
    static AnsweringDevice& fresh();

    /// The next command is answered with this report; one without a report times out.
    void will_report(const StatusReport& report) { reports_.push_back(report); }
    /// The data requests are answered with `data`, or fail with a negative `rc`.
    void will_give(const Bytes& data, int rc);

    ZELFLASH& session() { return *session_; }
    flashEntry& row() { return session_->fe[0]; }

    AnsweringDevice(const AnsweringDevice&) = delete;
    AnsweringDevice& operator=(const AnsweringDevice&) = delete;

  private:
    AnsweringDevice();
    void deliver();

    FakeUsb usb_;
    FakeUsbDevice& device_;
    std::unique_ptr<ZELFLASH> session_;
    std::deque<StatusReport> reports_;
};

/// A status report of the input's bytes: its flags are the first byte, where zero stands for
/// `usual_flags`.
AnsweringDevice::StatusReport take_report(FuzzInput& input, std::uint8_t usual_flags);

/// A data answer: a byte that is a negative transfer result or not, then at most `size` bytes.
struct DataAnswer {
    int rc;
    Bytes bytes;
};
DataAnswer take_data(FuzzInput& input, std::size_t size);

/// What holds for the components of a row whatever the device answered.
void check_components(const flashEntry& row);
