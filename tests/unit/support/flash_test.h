/// \file
/// What the tests of the flash session share: a bus, a log and a session.
#pragma once

#include "session/zelflash.h"
#include "support/flash_bus.h"
#include "support/log_capture.h"
#include "support/sleep_double.h"
#include "support/thread_double.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// One that the program has no list of its own for.
constexpr uint16_t flash_product = 0x4123;
/// On the exclusion list: such a device is listed without a command.
constexpr uint16_t silent_product = 0x3C75;

class HIDDEVICE2;

class FlashTest : public testing::Test {
  protected:
    FlashTest();
    ~FlashTest() override;

    /// How often exactly this line stands in the log; without its newline, debug lines without
    /// their level.
    int logged(const std::string& line) const;
    int debugged(const std::string& line) const;

    /// Makes `peripheral` the session's open device, with both handles; answers are then read
    /// directly.
    void open_directly(FlashPeripheral& peripheral, int slot = 0);
    /// The same with a reader.
    void open_with_reader(FlashPeripheral& peripheral, int slot = 0);
    /// Puts a row for `peripheral` into the table; its components are the main one at `level`.
    flashEntry& add_row(FlashPeripheral& peripheral, int level = 0);

    LogCapture log;
    FakeUsb usb;
    FlashBus bus{usb};
    SleepDouble sleeps;
    ThreadDouble threads;
    std::unique_ptr<ZELFLASH> flash;
};

/// Runs `action` and gives what it wrote to the console at `level`, with verbose messages when
/// `verbose` is 1.
template <typename Action>
std::string console_of(int level, int verbose, Action action);

/// A data answer with a list: three bytes, the list length at byte 2, entries from byte 6.
Bytes list_answer(int length, const std::vector<Bytes>& entries);

#include "journal/output.h"

template <typename Action>
std::string console_of(int level, int verbose, Action action) {
    const int old_level = OutputLevel;
    const int old_verbose = Verbose;
    OutputLevel = level;
    Verbose = verbose;
    testing::internal::CaptureStdout();
    action();
    OutputLevel = old_level;
    Verbose = old_verbose;
    return testing::internal::GetCapturedStdout();
}
