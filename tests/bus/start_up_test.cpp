// What a run sets up, in which order, until something ends it; and how it is wound up.
#include "support/bus_test.h"
#include "usb/flshusbintf.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

#ifndef ZELF_PROGRAM_IS_SANITIZED

namespace {

using Calls = std::vector<std::string>;

class StartUp : public BusTest {
  protected:
    StartUp() {
        set_bus({SimDevice{}});
        settings.preloads = {NOTED_CALLS};
        settings.environment["NOTED_CALLS"] = path("calls");
        settings.environment["NOTED_USER"] = "0";
    }

    /// The calls of the last run; of the files only log, trace and result file count.
    Calls calls() const {
        Calls result;
        std::istringstream lines(read_file(path("calls")));
        for (std::string line; std::getline(lines, line);) {
            const bool is_file = line.rfind("open ", 0) == 0 || line.rfind("close ", 0) == 0;
            const std::size_t slash = line.rfind('/');
            if (!is_file) {
                result.push_back(line);
            } else if (std::string name = line.substr(slash + 1);
                       name == "run.log" || name == "trace.bin" || name == "rma") {
                result.push_back(line.substr(0, line.find(' ') + 1) + name);
            }
        }
        return result;
    }
    /// Without the closing of files.
    Calls set_up_calls() const {
        Calls result = calls();
        std::erase_if(result, [](const std::string& call) { return call.rfind("close ", 0) == 0; });
        return result;
    }
    /// As `run`, without the calls of the runs before.
    RunResult run_anew(const Calls& arguments) {
        std::filesystem::remove(path("calls"));
        return run(arguments);
    }
};

}  // namespace

TEST_F(StartUp, UsageErrorsAndExplanationsSetNothingUp) {
    for (const Calls& arguments : std::vector<Calls>{{"-f"},
                                                     {"-U", "-L"},
                                                     {"-?"},
                                                     {"-o", "?"},
                                                     {"-E", "1"},
                                                     {"-p", "-x"},
                                                     {"-p", "-x", "-U"}}) {
        EXPECT_EQ(run_anew(arguments).exit_code, 1);
        EXPECT_THAT(calls(), IsEmpty());
        EXPECT_FALSE(std::filesystem::exists(path("run.log")));
        EXPECT_FALSE(std::filesystem::exists(path("trace.bin")));
    }
}

TEST_F(StartUp, VersionNeedsTraceAndLogOnly) {
    settings.environment["NOTED_USER"] = "1000";
    EXPECT_EQ(run({"-V"}).exit_code, 0);
    EXPECT_THAT(set_up_calls(), ElementsAre("open trace.bin", "open run.log"));
}

TEST_F(StartUp, OrdinaryUserIsRefusedBeforeTheLibraryIsLookedFor) {
    settings.environment["NOTED_USER"] = "1000";
    for (const Calls& arguments : std::vector<Calls>{
             {"-L"}, {"-U"}, {"-R"}, {"-S"}, {"-F", "a.dat"}, {"-D", "a.dat"}, {"-G", "1"}}) {
        const RunResult result = run_anew(arguments);
        EXPECT_EQ(result.exit_code, 2);
        EXPECT_EQ(result.console, "Must be 'root' to update firmware devices\n");
        EXPECT_THAT(result.log, EndsWith("\nMust be 'root' to update firmware devices\n"));
        EXPECT_THAT(set_up_calls(), ElementsAre("open trace.bin", "open run.log", "getuid"));
    }
}

TEST_F(StartUp, RefusedRunWritesNoResultFile) {
    settings.environment["NOTED_USER"] = "1000";
    EXPECT_EQ(run({"-L", "-r", path("rma")}).exit_code, 2);
    EXPECT_FALSE(std::filesystem::exists(path("rma")));
}

TEST_F(StartUp, MissingLibraryEndsTheRunBeforeFaultsAreHandled) {
    settings.environment["NOTED_LIBRARY"] = "none";
    const RunResult result = run({"-L", "-r", path("rma")});
    EXPECT_EQ(result.exit_code, 3);
    EXPECT_THAT(result.console, EndsWith("\nCould not load HID libraries (rc=2)\n"));
    EXPECT_THAT(result.log, EndsWith("\nCould not load HID libraries (rc=2)\n"));
    EXPECT_THAT(result.log, Not(HasSubstr("USB Flash Started")));
    EXPECT_FALSE(std::filesystem::exists(path("rma")));
    EXPECT_THAT(set_up_calls(), ElementsAre("open trace.bin", "open run.log", "getuid", "lt_dlinit",
                                            "lt_dladdsearchdir /usr/lib:/lib:", "lt_dlinit",
                                            "lt_dlopen libusb-1.0.so", "lt_dlopen libusb-1.0.so.0",
                                            "lt_dlopen libusb-1.0.so.0.0.0", "lt_dlexit"));
}

TEST_F(StartUp, WholeRunIsSetUpAndWoundUpInOrder) {
    const Calls expected = {"open trace.bin",
                            "open run.log",
                            "getuid",
                            "lt_dlinit",
                            "lt_dladdsearchdir /usr/lib:/lib:",
                            "lt_dlinit",
                            "lt_dlopen libusb-1.0.so",
                            "handle faults",
                            "open rma",
                            "close rma",
                            "close trace.bin",
                            "lt_dlexit",
                            "close run.log"};
    for (const Calls& arguments : std::vector<Calls>{{"-L"}, {"-S"}, {"-D", "a.dat"}, {"-R"}}) {
        Calls with_result = arguments;
        with_result.insert(with_result.end(), {"-r", path("rma")});
        EXPECT_EQ(run_anew(with_result).exit_code, 0);
        EXPECT_THAT(calls(), ElementsAreArray(expected)) << arguments[0];
    }
}

TEST_F(StartUp, ResultFileIsWrittenForEveryCommand) {
    EXPECT_EQ(run({"-S", "-r", path("rma")}).exit_code, 0);
    EXPECT_EQ(read_file(path("rma")), "0 \n");
    EXPECT_EQ(run({"-G", "1", "-r", path("rma")}).exit_code, 0);
    EXPECT_EQ(read_file(path("rma")), "0 \n");
    EXPECT_EQ(run({"-L", "-r", path("rma")}).exit_code, 0);
    EXPECT_EQ(read_file(path("rma")),
              "11\nPID 3c35 EC level: 0001.02: No Firmware update attempted \n");
}

TEST_F(StartUp, ExceptionOfACommandEndsTheRunWithLoaderAndLogClosed) {
    settings.preloads = {FAILING_ALLOCATION, NOTED_CALLS};
    settings.environment["FAILING_ALLOCATION_SIZE"] = std::to_string(sizeof(USBINTF));
    ends.expect_open_log();
    const RunResult result = run({"-L", "-r", path("rma")});
    EXPECT_EQ(result.exit_code, 4);
    EXPECT_EQ(result.console, "Flash failed...exception occurred\n");
    EXPECT_THAT(result.log, EndsWith("Flash failed...exception occurred\n"));
    EXPECT_THAT(result.log, Not(HasSubstr("USB Flash ended at")));
    const Calls all = calls();
    ASSERT_GE(all.size(), 2U);
    EXPECT_EQ(all[all.size() - 2], "lt_dlexit");
    EXPECT_EQ(all.back(), "close run.log");
    EXPECT_FALSE(std::filesystem::exists(path("rma")));
}

#endif
