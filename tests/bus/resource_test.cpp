// What a run takes, and gives back: memory, descriptors, threads. The leak sanitizer, where the
// build has it, looks at each of these runs as well.
#include "support/bus_test.h"

#include <gmock/gmock.h>

#include <sys/resource.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

using testing::AnyOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr int most_devices = 128;
constexpr int exit_ok = 0;
constexpr int exit_no_devices = 5;

/// A bus of 128 devices of one vendor each of which has a component 1; the last one is behind.
std::string full_bus(unsigned int vendor_of_all_but_the_last) {
    std::string text = quick_timing() +
                       "[[hub]]\nname = \"left\"\nbus = 1\nports = 80\n"
                       "[[hub]]\nname = \"right\"\nbus = 2\nports = 80\n";
    for (int i = 0; i < most_devices; ++i) {
        const bool is_last = i == most_devices - 1;
        text += device_text({.name = is_last ? "printer" : "device-" + std::to_string(i),
                             .serial = "PR" + std::to_string(i),
                             .components = {{}, {.id = 1, .level = is_last ? "01.02" : "01.05"}},
                             .vendor = is_last ? 0x7A01 : vendor_of_all_but_the_last,
                             .device_keys = i < 64 ? "hub = \"left\"" : "hub = \"right\""});
    }
    return text;
}

class Resources : public BusTest {
  protected:
    static SimDevice printer() {
        SimDevice device;
        device.components = {{}, {.id = 1}};
        return device;
    }
    /// The query of the EC level is the same command, and comes first.
    static std::string stop_without_answer() {
        return fault_text("printer", "command", "no-answer",
                          "byte = 0x02\nnumber = 2\ntimes = \"always\"");
    }
};

}  // namespace

TEST_F(Resources, UpdateOver128DevicesGivesAllMemoryBack) {
    set_bus(full_bus(0x7A01));
    add_firmware("boot.dat", {.component = 1});
    const RunResult result = update();
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.errors, "");
    EXPECT_THAT(result.console, EndsWith("Updated 1 device\n"));
    EXPECT_EQ(count_lines(result.console,
                          "    File EC level smaller or equal, no update needed "
                          "for PID: 3c35  COMP: 1"),
              most_devices - 1);
}

TEST_F(Resources, DeviceThatNeverAnswersTheStopCommandLeavesNothingBehind) {
    set_bus({printer()}, stop_without_answer());
    const FirmwareFile file = {.component = 1};
    add_firmware("boot.dat", file);
    const RunResult result = update({"-n", "3"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.errors, "");
    EXPECT_EQ(image("printer", 1), file.body());
    EXPECT_THAT(result.log,
                HasSubstr("finished waiting for device to close (read_hid_in_progress=1,"));
    EXPECT_THAT(result.log, Not(HasSubstr("the reader does not leave")));
}

TEST_F(Resources, DeviceThatIsUnpluggedUnderItsReaderLeavesNothingBehind) {
    for (const char* at : {"device-info", "extended-list", "ec-level", "interrupt"}) {
        set_bus({printer()}, fault_text("printer", at, "unplug", "times = \"always\""));
        for (const char* command : {"-L", "-R"}) {
            const RunResult result = run({command});
            EXPECT_THAT(result.exit_code, AnyOf(exit_ok, exit_no_devices)) << at << ' ' << command;
            EXPECT_EQ(record().of_kind("printer", "fault").size(), 1U) << at << ' ' << command;
            EXPECT_EQ(result.errors, "") << at << ' ' << command;
            for (const Transfer& one : record().all()) {
                EXPECT_NE(one.kind, "misuse") << at << ' ' << command;
            }
        }
    }
}

namespace {

/// The largest file that a run may write.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(rlim_t bytes) {
        getrlimit(RLIMIT_FSIZE, &earlier_);
        const rlimit limit = {.rlim_cur = bytes, .rlim_max = earlier_.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &earlier_); }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

  private:
    rlimit earlier_{};
};

}  // namespace

TEST_F(Resources, JournalsThatReachTheFileSizeLimitCostNoImage) {
    set_bus({printer()});
    const FirmwareFile file = {.component = 1, .data_records = 300};
    add_firmware("boot.dat", file);
    // Enough for the simulated bus, not for what is said at this level.
    constexpr rlim_t limit = 131072;
    constexpr rlim_t longest_trace_record = 1000;
    RunResult result;
    {
        const FileSizeLimit file_size(limit);
        ends.expect_open_log();  // it is cut
        result = update({"-n", "3"});
    }
    EXPECT_EQ(result.signal, 0);
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(image("printer", 1), file.body());
    EXPECT_EQ(result.log.size(), limit);
    // The record that did not fit whole was taken back.
    const auto trace_size = std::filesystem::file_size(path("trace.bin"));
    EXPECT_LE(trace_size, limit);
    EXPECT_GT(trace_size, limit - longest_trace_record);
    EXPECT_THAT(trace().back().payload, Not(IsEmpty()));
}

#ifndef ZELF_PROGRAM_IS_SANITIZED

// The thread sanitizer writes a file of its own before the program begins.
TEST_F(Resources, FileSizeLimitDoesNotEndTheRunAtItsStart) {
    run_in_real_time();  // the virtual clock is kept in a file
    RunResult result;
    {
        const FileSizeLimit none(0);
        result = run({"-V"});
    }
    EXPECT_EQ(result.signal, 0);
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.log, "");
}

namespace {

/// Runs whose end is noted. The sanitizers bring descriptors and memory of their own.
class RunEnd : public Resources {
  protected:
    RunEnd() {
        settings.preloads = {RUN_END};
        settings.environment["RUN_END"] = path("run-end");
    }
    /// Files that the last run opened and left open; what the simulated bus holds on behalf of the
    /// whole process is not the program's.
    std::vector<std::string> left_open() const {
        std::vector<std::string> left;
        std::istringstream lines(read_file(path("run-end")));
        for (std::string line; std::getline(lines, line);) {
            const bool is_of_the_bus =
                line == path("record.tsv") || line.starts_with(path("state/"));
            if (!is_of_the_bus && !line.starts_with("peak ")) {
                left.push_back(line);
            }
        }
        return left;
    }
    /// Most memory that the last run held, in KiB.
    long peak() const {
        const std::string text = read_file(path("run-end"));
        const auto at = text.rfind("peak ");
        const long kilobytes =
            at == std::string::npos ? -1 : std::strtol(text.c_str() + at + 5, nullptr, 10);
        EXPECT_GT(kilobytes, 0);
        return kilobytes;
    }
    static constexpr long generous_growth = 1024;  // KiB
};

}  // namespace

TEST_F(RunEnd, EveryCommandClosesItsDescriptors) {
    set_bus({printer()});
    const std::string file = add_firmware("boot.dat", {.component = 1});
    write_file(path("zelflash.cfg"), "boot.dat\n");
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {"-V"},
             {"-L"},
             {"-S", "-p", firmware_directory()},
             {"-D", file},
             {"-G", "1", "-w", path("read.dat")},
             {"-U", "-p", firmware_directory(), "-r", path("rma")},
             {"-C", path("zelflash.cfg"), "-p", firmware_directory(), "-f"},
             {"-F", file, "-f"},
             {"-R"}}) {
        EXPECT_EQ(run(arguments).exit_code, 0) << arguments[0];
        EXPECT_GT(peak(), 0);
        EXPECT_THAT(left_open(), IsEmpty()) << arguments[0];
    }
}

TEST_F(RunEnd, FailedUpdatesCloseTheirDescriptors) {
    add_firmware("boot.dat", {.component = 1});
    for (const char* fault : {"unplug", "reject", "stall"}) {
        set_bus({printer()}, fault_text("printer", "record", fault, "times = \"always\""));
        EXPECT_EQ(update({"-r", path("rma")}).exit_code, 6) << fault;
        EXPECT_THAT(left_open(), IsEmpty()) << fault;
    }
}

TEST_F(RunEnd, PeakMemoryDoesNotGrowWithTheDevices) {
    // The devices that are not the updater's are there in both runs: the bus itself has its price.
    add_firmware("boot.dat", {.component = 1});
    set_bus(full_bus(0x1234));
    EXPECT_THAT(update().console, EndsWith("Updated 1 device\n"));
    const long of_one = peak();
    std::filesystem::remove_all(path("state"));
    set_bus(full_bus(0x7A01));
    EXPECT_THAT(update().console, EndsWith("Updated 1 device\n"));
    EXPECT_LT(peak(), of_one + generous_growth);
    RecordProperty("peak_kib_one", std::to_string(of_one));
    RecordProperty("peak_kib_128", std::to_string(peak()));
}

TEST_F(RunEnd, PeakMemoryDoesNotGrowWithTheRecords) {
    set_bus({printer()});
    std::vector<long> peaks;
    for (const int records : {64, 1024}) {
        const FirmwareFile file = {.component = 1, .data_records = records};
        add_firmware("boot.dat", file);
        EXPECT_THAT(update({"-f"}).console, EndsWith("Updated 1 device\n"));
        EXPECT_EQ(image("printer", 1), file.body());
        peaks.push_back(peak());
        EXPECT_EQ(run({"-G", "1", "-w", path("read.dat")}).exit_code, 0);
        peaks.push_back(peak());
    }
    EXPECT_LT(peaks[2], peaks[0] + generous_growth);
    EXPECT_LT(peaks[3], peaks[1] + generous_growth);
    RecordProperty("peak_kib_64", std::to_string(peaks[0]));
    RecordProperty("peak_kib_1024", std::to_string(peaks[2]));
}

TEST_F(Resources, ReadersThatAreStillInTheirReadDoNotHoldUpTheEnd) {
    run_in_real_time();  // such a read never gives the word to another thread
    settings.preloads = {LINGERING_READ};
    set_bus({printer()}, stop_without_answer());
    const FirmwareFile file = {.component = 1};
    add_firmware("boot.dat", file);
    const RunResult result = update({"-r", path("rma"), "-n", "3"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.errors, "");
    EXPECT_EQ(image("printer", 1), file.body());
    EXPECT_THAT(result.log, HasSubstr("the reader does not leave, its device stays open\n"));
    EXPECT_THAT(result.log, EndsWith("==================================================\n"));
    EXPECT_THAT(read_file(path("rma")), HasSubstr(": Flash succeeded \n"));
    EXPECT_FALSE(trace().empty());
}

#endif
