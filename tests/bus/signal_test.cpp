// Signals that ask the program to end, at any moment of an update.
#include "support/bus_test.h"

#include <gmock/gmock.h>

#include <signal.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr char slow_timing[] =
    "timing = { transfer_ms = 0, query_ms = 100, erase_ms = 300, record_ms = 60, "
    "checksum_ms = 500, reset_ms = 300 }";
constexpr char explanation[] = "Finishing the component in progress, do not disconnect the device";

/// A printer and a scanner whose components 1 are sent images, slowly enough to step in between.
class Signal : public BusTest, public testing::WithParamInterface<int> {
  protected:
    Signal() {
        SimDevice printer;
        printer.components = {{}, {.id = 1}};
        SimDevice scanner = {.name = "scanner",
                             .product = 0x3C36,
                             .serial = "SC0001",
                             .components = {{}, {.id = 1}}};
        printer.device_keys = scanner.device_keys = slow_timing;
        set_bus({printer, scanner});
        add_firmware("boot.dat", file);
        add_firmware("scanner.dat", {.product = 0x3C36, .component = 1});
    }
    /// An update that is sent the signal as the device takes the message with this number behind
    /// the erase, or the erase itself (0). In virtual time: from outside no moment could be chosen.
    RunResult run_with_signal(int signal_number, std::size_t message,
                              const std::vector<std::string>& further = {}) {
        const bool is_checksum = message == file.messages().size();
        const std::string keys =
            std::string("signal = \"SIG") + sigabbrev_np(signal_number) + "\"" +
            (message == 0 || is_checksum ? "" : "\nnumber = " + std::to_string(message));
        set_bus(read_file(path("bus.toml")) + fault_text("printer",
                                                         message == 0  ? "erase"
                                                         : is_checksum ? "checksum"
                                                                       : "record",
                                                         "signal", keys));
        ends.expect_signal(signal_number);
        return update(further);
    }
    /// Starts an update and sends the signal from outside, once `messages` messages have followed
    /// the erase.
    RunResult run_with_signal_from_outside(int signal_number, std::size_t messages) {
        const auto process = start({"-U", "-p", firmware_directory()});
        EXPECT_TRUE(process->wait_until([&] {
            const auto sent = commands("printer");
            const auto erase = std::find(sent.begin(), sent.end(), "04000100");
            return static_cast<std::size_t>(sent.end() - erase) > messages;
        }));
        ends.expect_signal(signal_number);
        process->send_signal(signal_number);
        return process->finish();
    }

    /// The image arrives whole, log and trace are closed, the result file is written.
    void run_whole_with_signal(std::size_t messages) {
        const RunResult result = run_with_signal(GetParam(), messages, {"-r", path("rma")});
        EXPECT_EQ(result.signal, GetParam());
        EXPECT_EQ(image("printer", 1), file.body());
        EXPECT_THAT(result.log, ContainsRegex("USB Flash ended at [^\n]+\n=+\n$"));
        const auto records = trace();
        ASSERT_FALSE(records.empty());
        EXPECT_THAT(records.back().payload, HasSubstr("====="));
        EXPECT_THAT(read_file(path("rma")), HasSubstr(": Flash succeeded \n"));
        EXPECT_THAT(commands("scanner"), Not(testing::Contains("04000100")));
    }
    /// The main component's update is over, and the run ends in the sleep that follows it.
    void expect_end_in_sleep(const std::string& line) {
        const auto process = start({"-U", "-p", firmware_directory(), "-4", "30000"});
        EXPECT_TRUE(process->wait_until(
            [&] { return count_lines(read_file(path("console.txt")), line) > 0; }));
        ends.expect_signal(GetParam());
        process->send_signal(GetParam());
        const RunResult result = process->finish();
        EXPECT_EQ(result.signal, GetParam());
        // Whoever slept on would say so, or go on to the second pass.
        EXPECT_THAT(result.console, EndsWith(line + "\n"));
        EXPECT_THAT(result.console, Not(HasSubstr(explanation)));
        EXPECT_EQ(state().resets, 1);
        EXPECT_FALSE(trace().empty());  // it holds whole records
    }
    static SimDevice slow_printer(std::vector<SimComponent> components) {
        SimDevice printer;
        printer.components = std::move(components);
        printer.device_keys = slow_timing;
        return printer;
    }

    /// Long enough for a signal to come in its middle.
    const FirmwareFile file = {.component = 1, .data_records = 25};
};

}  // namespace

INSTANTIATE_TEST_SUITE_P(EndRequests, Signal,
                         testing::Values(SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1));

TEST_P(Signal, InTheMiddleOfAnImageWaitsForItsEnd) {
    const RunResult result = run_with_signal_from_outside(GetParam(), 3);
    EXPECT_EQ(result.signal, GetParam());
    EXPECT_EQ(count_lines(result.console, explanation), 1);
    EXPECT_EQ(image("printer", 1), file.body());
    EXPECT_FALSE(state().component(1).broken);
    EXPECT_EQ(state().component(1).level, "01.05");
}

TEST_P(Signal, DuringTheEraseWaitsForTheImagesEnd) {
    const RunResult result = run_with_signal(GetParam(), 0);
    EXPECT_EQ(result.signal, GetParam());
    EXPECT_EQ(image("printer", 1), file.body());
}

TEST_P(Signal, LeavesTheOtherDevicesAloneAndClosesTheLog) {
    const RunResult result = run_with_signal(GetParam(), 3);
    EXPECT_THAT(commands("scanner"), Not(testing::Contains("04000100")));
    EXPECT_THAT(result.log,
                HasSubstr("Firmware update of Product ID 3c35 COMP: 1 finished, rc=0\n"));
    EXPECT_THAT(result.log, ContainsRegex("USB Flash ended at [^\n]+\n=+\n$"));
    const auto records = trace();
    ASSERT_FALSE(records.empty());
    EXPECT_THAT(records.back().payload, HasSubstr("====="));
}

TEST_F(Signal, ResultFileIsWritten) {
    run_with_signal(SIGTERM, 3, {"-r", path("rma.txt")});
    EXPECT_THAT(read_file(path("rma.txt")),
                HasSubstr("PID 3c35 EC level: 0001.02: Flash succeeded \n"));
}

TEST_F(Signal, QuietRunSaysNothing) {
    const RunResult result = run_with_signal(SIGINT, 3, {"-n", "0"});
    EXPECT_EQ(result.signal, SIGINT);
    EXPECT_EQ(result.console, "");
    EXPECT_EQ(image("printer", 1), file.body());
}

TEST_F(Signal, SecondOneDoesNotCutTheImageEither) {
    const auto process = start({"-U", "-p", firmware_directory()});
    for (const std::size_t messages : {3U, 5U}) {
        EXPECT_TRUE(process->wait_until([&] {
            const auto sent = commands("printer");
            const auto erase = std::find(sent.begin(), sent.end(), "04000100");
            return static_cast<std::size_t>(sent.end() - erase) > messages;
        }));
        process->send_signal(messages == 3U ? SIGINT : SIGTERM);
    }
    ends.expect_signal(SIGINT);
    const RunResult result = process->finish();
    EXPECT_EQ(result.signal, SIGINT);
    EXPECT_EQ(count_lines(result.console, explanation), 1);
    EXPECT_EQ(image("printer", 1), file.body());
}

class SignalOfEveryKind : public Signal {};

TEST_P(SignalOfEveryKind, WaitsForTheImagesEnd) {
    const RunResult result = run_with_signal_from_outside(GetParam(), 3);
    EXPECT_EQ(result.signal, GetParam());
    EXPECT_EQ(count_lines(result.console, explanation), 1);
    EXPECT_EQ(image("printer", 1), file.body());
}

INSTANTIATE_TEST_SUITE_P(Kinds, SignalOfEveryKind,
                         testing::Values(SIGUSR2, SIGALRM, SIGSTKFLT, SIGXCPU, SIGVTALRM, SIGPROF,
                                         SIGIO, SIGPWR, SIGRTMIN, SIGRTMAX));

TEST_F(Signal, ThatComesAgainInALongSilenceEndsAStuckRun) {
    const std::string told =
        "\nStopped while nothing moved on the wire: the image of PID: 3c35 COMP: 1 (SN='PR0001') "
        "is incomplete. Leave the device plugged in and run the same update again\n";
    // The erase has no time-out, and is never answered.
    set_bus({slow_printer({{}, {.id = 1}})},
            fault_text("printer", "command", "no-answer", "byte = 0x04\ntimes = \"always\""));
    const auto process = start({"-U", "-p", firmware_directory(), "-1", "0"});
    EXPECT_TRUE(process->wait_until([&] {
        const auto sent = commands("printer");
        return std::find(sent.begin(), sent.end(), "04000100") != sent.end();
    }));
    process->send_signal(SIGTERM);
    std::this_thread::sleep_for(std::chrono::seconds(4));
    // The process may have answered late on a busy machine: a signal each second ends it all the
    // same, and it has ended when one can't be sent any more.
    EXPECT_FALSE(process->wait_until([&] {
        process->send_signal(SIGTERM);
        std::this_thread::sleep_for(std::chrono::seconds(1));
        return false;
    }));
    ends.expect_signal(SIGTERM);
    const RunResult result = process->finish();
    EXPECT_EQ(result.signal, SIGTERM);
    EXPECT_EQ(count_lines(result.console, explanation), 1);
    EXPECT_THAT(result.console, EndsWith(told));
    EXPECT_THAT(result.log, EndsWith(told));
    const auto records = trace();
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records.back().payload, told);
    // What the line advises mends the device.
    set_bus({slow_printer({{}, {.id = 1}})});
    EXPECT_EQ(update().exit_code, 0);
    EXPECT_EQ(image("printer", 1), file.body());
}

TEST_F(Signal, BeforeAnyEraseEndsTheRunAtOnce) {
    const auto process = start({"-U", "-p", firmware_directory()});
    EXPECT_TRUE(process->wait_until([&] { return !commands("printer").empty(); }));
    ends.expect_signal(SIGINT);
    process->send_signal(SIGINT);
    const RunResult result = process->finish();
    EXPECT_EQ(result.signal, SIGINT);
    EXPECT_THAT(result.console, Not(HasSubstr(explanation)));
    EXPECT_EQ(image("printer", 1), "");
}

TEST_P(Signal, AtTheFirstRecordWaitsForTheImagesEnd) {
    run_whole_with_signal(1);
}

TEST_P(Signal, AtTheLastRecordWaitsForTheImagesEnd) {
    run_whole_with_signal(file.messages().size() - 1);
}

TEST_P(Signal, AtTheChecksumWaitsForItsAnswer) {
    run_whole_with_signal(file.messages().size());
}

TEST_P(Signal, WhileDevicesAreListedEndsTheRunAtOnce) {
    const auto process = start({"-L"});
    EXPECT_TRUE(process->wait_until([&] { return !commands("printer").empty(); }));
    ends.expect_signal(GetParam());
    process->send_signal(GetParam());
    EXPECT_EQ(process->finish().signal, GetParam());
    EXPECT_FALSE(trace().empty());  // it holds whole records
    // The interface is free again.
    const RunResult next = run({"-L"});
    EXPECT_EQ(next.exit_code, 0);
    EXPECT_EQ(count_lines(next.console, list_line(0x3C35, 1, "01.02", "PR0001")), 1);
}

TEST_P(Signal, AtTheResetEndsTheRunWithTheImageWhole) {
    set_bus({slow_printer({{}})});
    const FirmwareFile main = {.data_records = 5};
    add_firmware("boot.dat", main);
    const auto process = start({"-U", "-p", firmware_directory(), "-r", path("rma")});
    EXPECT_TRUE(process->wait_until([&] {
        return count_lines(read_file(path("console.txt")), "Reset to be done for PID 3c35") > 0;
    }));
    ends.expect_signal(GetParam());
    process->send_signal(GetParam());
    const RunResult result = process->finish();
    EXPECT_EQ(result.signal, GetParam());
    EXPECT_EQ(image("printer", 0), main.body());
    EXPECT_EQ(state().resets, 1);
    // On a busy machine the component may be over before the signal comes: then it is not held.
    const bool was_held = count_lines(result.console, explanation) == 1;
    EXPECT_EQ(read_file(path("rma")).find(": Flash succeeded \n") != std::string::npos, was_held);
}

TEST_P(Signal, InTheSleepAfterAResetEndsTheRunAtOnce) {
    set_bus({slow_printer({{}, {.id = 1}, {.id = 2}})});
    add_firmware("boot.dat", {.data_records = 5});
    expect_end_in_sleep("Sleeping for 30000 milliseconds before using device again");
}

TEST_P(Signal, InTheSleepBetweenThePassesEndsTheRunAtOnce) {
    set_bus({slow_printer({{}, {.id = 1}})});
    add_firmware("boot.dat", {.data_records = 5});
    expect_end_in_sleep("Sleeping to allow reset device to respond");
}

TEST_F(Signal, MainComponentIsResetBeforeTheRunEnds) {
    SimDevice printer;
    printer.device_keys = slow_timing;
    set_bus({printer});
    const FirmwareFile main = {.data_records = 25};
    add_firmware("boot.dat", main);
    const RunResult result = run_with_signal(SIGHUP, 3);
    EXPECT_EQ(result.signal, SIGHUP);
    EXPECT_EQ(image("printer", 0), main.body());
    EXPECT_EQ(state().resets, 1);
    EXPECT_THAT(result.console, Not(HasSubstr("Sleeping to allow")));
}

TEST_F(Signal, NoTimeIsGivenToAResetDeviceThatIsNotUsedAgain) {
    SimDevice printer;
    printer.components = {{}, {.id = 1}, {.id = 2}};
    printer.device_keys = slow_timing;
    set_bus({printer});
    add_firmware("boot.dat", {.data_records = 25});
    const RunResult result = run_with_signal(SIGTERM, 3, {"-4", "600"});
    EXPECT_EQ(result.signal, SIGTERM);
    EXPECT_THAT(result.console, HasSubstr("Main component (0) of device 3c35 updated.\n"));
    EXPECT_THAT(result.console, Not(HasSubstr("Sleeping for")));
    EXPECT_EQ(state().resets, 1);
}
