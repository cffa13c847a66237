#include "support/child_process.h"
#include "support/temporary_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr char banner[] = "Quenta Firmware Update Utility\n\nVersion 1.1.3 (i386)\n";

// Libraries that are bound like libusb.
constexpr char deviceless_usb[] = ZELF_BINDING_DIR "/complete/libusb-1.0.so";
constexpr char incomplete_usb[] = ZELF_BINDING_DIR "/without_pollfds/libusb-1.0.so";

std::string golden(const std::string& name) {
    return read_file(std::string(ZELF_GOLDEN_DIR) + "/" + name);
}

/// Runs the built program with its journals in a directory of the test's own and, unless it is
/// given another, a libusb that knows no device.
class CommandLine : public testing::Test {
  protected:
    CommandLine() { chmod(directory_.path().c_str(), 0777); }

    ChildEnd run(std::vector<std::string> arguments,
                 std::vector<std::string> environment = {}) const {
        arguments.insert(arguments.begin(), {"-l", log_path(), "-t", trace_path()});
        // The guard of rehearsals: no run comes by the machine's own libusb.
        environment.insert(environment.begin(), {"LD_PRELOAD=" ZELF_GUARD, usb(deviceless_usb)});
        return run_program(ZELF_PROGRAM, {arguments, environment});
    }
    static std::string usb(const char* library) {
        return std::string("ZELFWSIM_LIBRARY=") + library;
    }
    ChildEnd run_as_anybody(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), {"-l", log_path(), "-t", trace_path()});
        return run_program(ZELF_PROGRAM, {arguments, {}, is_super_user()});
    }
    std::string log_path() const { return directory_.path("log"); }
    std::string trace_path() const { return directory_.path("trace"); }
    std::string log() const { return read_file(log_path()); }
    std::string trace_text() const { return read_file(trace_path()); }
    bool has_journals() const {
        return std::filesystem::exists(log_path()) || std::filesystem::exists(trace_path());
    }

    TemporaryDirectory directory_;
};

/// Past the check for the super-user.
class CommandLineAsRoot : public CommandLine {
  protected:
    void SetUp() override {
        if (!is_super_user()) {
            GTEST_SKIP() << "needs the super-user";
        }
    }
};

}  // namespace

TEST_F(CommandLine, NothingAtAllPrintsTheUsageAndExitsWithOne) {
    const ChildEnd end = run_program(ZELF_PROGRAM, {{}});
    EXPECT_EQ(end.exit_code, 1);
    EXPECT_EQ(end.output, golden("usage.txt"));
    EXPECT_EQ(end.errors, "");
}

TEST_F(CommandLine, QuestionMarkPrintsUsageAndHelp) {
    const ChildEnd end = run({"-?"});
    EXPECT_EQ(end.exit_code, 1);
    EXPECT_EQ(end.output, golden("usage.txt") + golden("help.txt"));
    EXPECT_EQ(end.errors, "");
}

TEST_F(CommandLine, AnUnknownOptionExitsWithOne) {
    const ChildEnd end = run({"-Z"});
    EXPECT_EQ(end.exit_code, 1);
    EXPECT_EQ(end.output, golden("usage.txt") + golden("help.txt"));
}

TEST_F(CommandLine, OptionHelpIsPrinted) {
    for (const char* text : {"?", "help"}) {
        const ChildEnd end = run({"-o", text});
        EXPECT_EQ(end.exit_code, 1);
        EXPECT_EQ(end.output, golden("option_help.txt"));
        EXPECT_EQ(end.errors, "");
    }
}

TEST_F(CommandLine, AnExitCodeIsExplained) {
    const ChildEnd end = run({"-E", "6"});
    EXPECT_EQ(end.exit_code, 1);
    EXPECT_EQ(end.output, "Exit Code 6:  No devices updated\n");
}

TEST_F(CommandLine, UsageErrorsExitWithOne) {
    for (const auto& arguments : std::vector<std::vector<std::string>>{{"-f"},
                                                                       {"-U", "-L"},
                                                                       {"-f", "-U", "-L"},
                                                                       {"-p", "-x", "-U"},
                                                                       {"-o", "7"},
                                                                       {"-U", "-o", "7"},
                                                                       {"-n", "4"},
                                                                       {"-U", "-n", "4"}}) {
        const ChildEnd end = run(arguments);
        EXPECT_EQ(end.exit_code, 1);
        EXPECT_EQ(end.output, golden("usage.txt"));
        EXPECT_EQ(end.errors, "");
    }
}

TEST_F(CommandLine, AnOverlongArgumentIsNamedOnStandardError) {
    const ChildEnd end = run({"-U", "-r", std::string(255, 'x')});
    EXPECT_EQ(end.exit_code, 1);
    EXPECT_EQ(end.output, "");
    EXPECT_EQ(end.errors, "zelfwupdate: option -r: the argument is longer than 254 characters\n");
    EXPECT_FALSE(has_journals());
}

TEST_F(CommandLine, VersionIsShownOnConsoleLogAndTrace) {
    const ChildEnd end = run({"-V"});
    EXPECT_EQ(end.exit_code, 0);
    EXPECT_THAT(end.output, StartsWith(banner));
    EXPECT_EQ(std::count(end.output.begin(), end.output.end(), '\n'), 5);
    EXPECT_EQ(end.errors, "");
    EXPECT_EQ(log(), end.output);
    EXPECT_THAT(trace_text(), HasSubstr("Version 1.1.3 (i386)\n"));
}

TEST_F(CommandLine, VersionAndExplanationsAreShownToAnOrdinaryUser) {
    const ChildEnd end = run_as_anybody({"-V"});
    EXPECT_EQ(end.exit_code, 0);
    EXPECT_THAT(end.output, StartsWith(banner));
    EXPECT_EQ(log(), end.output);
    EXPECT_EQ(run_as_anybody({"-E", "2"}).output, "Exit Code 2:  Must be 'root' user on Linux\n");
    EXPECT_EQ(run_as_anybody({"-f"}).exit_code, 1);
}

TEST_F(CommandLine, QuietVersionGoesToTheLogOnly) {
    const ChildEnd end = run({"-n", "0", "-V"});
    EXPECT_EQ(end.exit_code, 0);
    EXPECT_EQ(end.output, "");
    EXPECT_THAT(log(), StartsWith(banner));
}

TEST_F(CommandLine, AnEarlierLogIsReplacedAndAnEarlierTraceIsKept) {
    directory_.write("log", "an earlier run's log");
    directory_.write("trace", "an earlier run's trace");
    EXPECT_EQ(run({"-V"}).exit_code, 0);
    EXPECT_THAT(log(), StartsWith(banner));
    EXPECT_THAT(trace_text(), StartsWith("an earlier run's trace"));
    EXPECT_THAT(trace_text(), HasSubstr("Version 1.1.3"));
}

TEST_F(CommandLine, JournalsThatCannotBeOpenedAreNoError) {
    const ChildEnd end =
        run({"-l", directory_.path("none/log"), "-t", directory_.path("none/t"), "-V"});
    EXPECT_EQ(end.exit_code, 0);
    EXPECT_THAT(end.output, StartsWith(banner));
    EXPECT_EQ(end.errors, "");
}

TEST_F(CommandLine, WithoutItsLogARunIsStillTraced) {
    const ChildEnd end = run({"-l", directory_.path("none/log"), "-V"});
    EXPECT_EQ(end.exit_code, 0);
    EXPECT_THAT(end.output, StartsWith(banner));
    EXPECT_THAT(trace_text(), HasSubstr("Version 1.1.3 (i386)\n"));
}

TEST_F(CommandLine, EveryDeviceAndFileCommandNeedsTheSuperUser) {
    for (const auto& command : std::vector<std::vector<std::string>>{
             {"-R"}, {"-C", "a"}, {"-F", "a"}, {"-U"}, {"-L"}, {"-S"}, {"-D", "a"}, {"-G", "1"}}) {
        const ChildEnd end = run_as_anybody(command);
        EXPECT_EQ(end.exit_code, 2);
        EXPECT_EQ(end.output, "Must be 'root' to update firmware devices\n");
        EXPECT_EQ(end.errors, "");
        EXPECT_THAT(log(), EndsWith("Must be 'root' to update firmware devices\n"));
        std::filesystem::remove(log_path());
        std::filesystem::remove(trace_path());
    }
}

TEST_F(CommandLine, TheLogBeginsWithBannerAndCommandLine) {
    run_as_anybody({"-U", "-d", "3C02", "-o", "2"});
    const std::string text = log();
    EXPECT_THAT(text, StartsWith(banner));
    const std::string rest = "Timeout read disabled\nCommand line:  zelfwupdate -l " + log_path() +
                             " -t " + trace_path() +
                             " -U -d 3C02 -o 2\nMust be 'root' to update firmware devices\n";
    EXPECT_THAT(text, EndsWith(rest));
    EXPECT_THAT(trace_text(), HasSubstr("Timeout read disabled\n"));
    EXPECT_THAT(trace_text(), HasSubstr("Command line:  zelfwupdate -l "));
}

TEST_F(CommandLine, ALongCommandLineIsCutInTheLog) {
    std::vector<std::string> arguments = {"-U"};
    for (int i = 0; i < 20; ++i) {
        arguments.insert(arguments.end(), {"-s", std::string(254, 'x')});
    }
    EXPECT_EQ(run_as_anybody(arguments).exit_code, 2);
    const std::string text = log();
    const std::size_t start = text.find("Command line: ");
    ASSERT_NE(start, std::string::npos);
    EXPECT_EQ(text.find('\n', start) - start, 1999U);
}

TEST_F(CommandLine, PercentSignsOfTheCommandLineStayAsTheyAre) {
    run_as_anybody({"-U", "-s", "%s%n%d"});
    EXPECT_THAT(log(), HasSubstr(" -U -s %s%n%d\n"));
    EXPECT_THAT(trace_text(), HasSubstr(" -U -s %s%n%d\n"));
}

TEST_F(CommandLineAsRoot, AUsbLibraryThatLacksFunctionsExitsWithThree) {
    const ChildEnd end = run({"-L"}, {usb(incomplete_usb)});
    EXPECT_EQ(end.exit_code, 3);
    EXPECT_EQ(end.output,
              "Failed finding symbol 'libusb_get_pollfds'\nCould not load HID libraries (rc=3)\n");
    EXPECT_THAT(log(), EndsWith("\nCould not load HID libraries (rc=3)\n"));
    EXPECT_THAT(log(), Not(HasSubstr("USB Flash Started")));
}

TEST_F(CommandLineAsRoot, TimeoutsAreEchoedOnlyOnceTheLibraryIsBound) {
    const std::vector<std::string> arguments = {"-L", "-n", "1", "-0", "1"};
    const std::string echo = "Information response timeout: 1 milliseconds\n";
    EXPECT_EQ(run(arguments, {usb(incomplete_usb)}).exit_code, 3);
    EXPECT_THAT(log(), EndsWith("\nCould not load HID libraries (rc=3)\n"));
    EXPECT_THAT(log(), Not(HasSubstr(echo)));
    EXPECT_EQ(run(arguments).exit_code, 5);
    EXPECT_THAT(log(), HasSubstr(echo));
}

TEST_F(CommandLineAsRoot, TheLogIsFramedByTheSession) {
    run({"-G", "1"});
    const std::string line(50, '=');
    EXPECT_THAT(log(), HasSubstr(line + "\nUSB Flash Started at "));
    EXPECT_THAT(log(), HasSubstr("\nUSB Flash ended at "));
    EXPECT_THAT(log(), EndsWith("\n" + line + "\n"));
}

TEST_F(CommandLineAsRoot, ChangedTimeoutsAreEchoedInVerboseMode) {
    const std::string echoes =
        "Information response timeout: 101 milliseconds\n"
        "Erase response timeout: 102 milliseconds\n"
        "Command response timeout: 103 milliseconds\n"
        "Checksum response timeout: 104 milliseconds\n"
        "Reset after sleep timeout: 105 milliseconds\n";
    const std::vector<std::string> changed = {"-G", "1",   "-0", "101", "-1", "102",
                                              "-2", "103", "-3", "104", "-4", "105"};
    EXPECT_EQ(run(changed).output, "No output file specified\n");
    EXPECT_THAT(log(), HasSubstr(echoes));
    std::vector<std::string> verbose = changed;
    verbose.insert(verbose.end(), {"-n", "1"});
    EXPECT_EQ(run(verbose).output, echoes + "No output file specified\n");
}

TEST_F(CommandLineAsRoot, ATimeoutSetToItsDefaultIsNotEchoed) {
    const ChildEnd end = run({"-G", "1", "-n", "1", "-0", "100", "-1", "10000", "-2", "5000", "-3",
                              "30000", "-4", "2000"});
    EXPECT_EQ(end.output, "No output file specified\n");
    EXPECT_THAT(log(), Not(HasSubstr("timeout:")));
}

struct EnvironmentCase {
    const char* name;
    const char* value;
    int level;  ///< the output level that the run has then
};

class EnvironmentLevels : public CommandLineAsRoot,
                          public testing::WithParamInterface<EnvironmentCase> {
  protected:
    /// The output level of a run, as its console and the debug lines of its log show it.
    int level_of(const std::vector<std::string>& options, const char* value) const {
        std::vector<std::string> arguments = {"-L", "-0", "101"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        const ChildEnd end = run(arguments, {std::string("ZELFWUPDATE_OUTPUT_LEVEL=") + value});
        const std::string text = log();
        const std::size_t debug_line = text.find(":Finding available");
        if (debug_line != std::string::npos) {
            return std::stoi(text.substr(text.rfind('\n', debug_line) + 1));
        }
        if (end.output.empty()) {
            return 0;
        }
        return end.output.find("timeout: 101") == std::string::npos ? 1 : 2;
    }
};

TEST_P(EnvironmentLevels, ApplyWithoutALevelOption) {
    EXPECT_EQ(level_of({}, GetParam().value), GetParam().level);
}

INSTANTIATE_TEST_SUITE_P(
    Each, EnvironmentLevels,
    testing::Values(EnvironmentCase{"Zero", "0", 1}, EnvironmentCase{"Empty", "", 1},
                    EnvironmentCase{"Negative", "-3", 1}, EnvironmentCase{"NoNumber", "abc", 1},
                    EnvironmentCase{"One", "1", 2}, EnvironmentCase{"Two", "2", 3},
                    EnvironmentCase{"Three", "3", 4}, EnvironmentCase{"NoUpperBound", "41", 42},
                    EnvironmentCase{"Text", "2nd", 3},
                    EnvironmentCase{"Huge", "99999999999999999999", 1000001}),
    [](const auto& given) { return given.param.name; });

using OptionBeforeEnvironment = EnvironmentLevels;

TEST_P(OptionBeforeEnvironment, ALevelOptionWins) {
    EXPECT_EQ(level_of({"-n", GetParam().value}, "7"), GetParam().level);
}

INSTANTIATE_TEST_SUITE_P(Given, OptionBeforeEnvironment,
                         testing::Values(EnvironmentCase{"Zero", "0", 0},
                                         EnvironmentCase{"One", "1", 2},
                                         EnvironmentCase{"Two", "2", 3},
                                         EnvironmentCase{"Three", "3", 4}),
                         [](const auto& given) { return given.param.name; });
