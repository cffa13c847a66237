#include "command_line/options.h"

#include "journal/output.h"
#include "settings.h"
#include "support/child_process.h"
#include "support/files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <vector>

using testing::HasSubstr;

namespace {

constexpr int goes_on = -1;
constexpr int check_usage = 1;
constexpr char any[] = "1";

std::string golden(const std::string& name) {
    return read_file(std::string(ZELF_GOLDEN_DIR) + "/" + name);
}

/// How the parsing of a command line ended.
struct Parsed {
    int code = 0;
    RunRequest request;
    std::string output;
    std::string errors;
};

Parsed parse(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "zelfwupdate");
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    Parsed parsed;
    reset_options();
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    parsed.code = parse_options(static_cast<int>(arguments.size()), argv.data(), parsed.request);
    parsed.output = testing::internal::GetCapturedStdout();
    parsed.errors = testing::internal::GetCapturedStderr();
    return parsed;
}

/// Parses a command line that is accepted without a word.
RunRequest accept(const std::vector<std::string>& arguments) {
    const Parsed parsed = parse(arguments);
    EXPECT_EQ(parsed.code, goes_on);
    EXPECT_EQ(parsed.output, "");
    EXPECT_EQ(parsed.errors, "");
    return parsed.request;
}

/// Parses a command line that ends with nothing but the usage text.
void expect_usage(const std::vector<std::string>& arguments) {
    const Parsed parsed = parse(arguments);
    EXPECT_EQ(parsed.code, check_usage) << testing::PrintToString(arguments);
    EXPECT_EQ(parsed.output, golden("usage.txt")) << testing::PrintToString(arguments);
    EXPECT_EQ(parsed.errors, "");
}

/// The option variables that hold a number.
std::vector<int> numbers() {
    return {information_timeout,
            erase_timeout,
            command_timeout,
            checksum_timeout,
            reset_sleep_timeout,
            OutputLevel,
            Verbose,
            force_update,
            continue_on_failure,
            display_desktop_progress,
            comp_update_id,
            get_component_number,
            list_devices,
            select_devices,
            device_firmware_match_only,
            sdv_dawu_hw,
            use_information_record_ec_level,
            background_read,
            old_progress,
            skip_version_check,
            oem_vendor,
            extended_components,
            check_for_update_only,
            numberOffwfilenames,
            NumberOfDeviceListEntries,
            NumberOfSerialNoListEntries};
}

std::vector<std::string> repeated(const std::string& option, int count) {
    std::vector<std::string> arguments;
    for (int i = 0; i < count; ++i) {
        arguments.push_back(option);
        arguments.push_back(std::to_string(i));
    }
    return arguments;
}

std::vector<std::string> with_update(std::vector<std::string> arguments) {
    arguments.emplace_back("-U");
    return arguments;
}

}  // namespace

TEST(Options, HaveTheirDefaultsBeforeParsing) {
    EXPECT_EQ(numbers(),
              (std::vector<int>{100, 10000, 5000, 30000, 2000, 1, 0, 0, 0, 0, -1, -1, 0,
                                0,   0,     0,    0,     1,    0, 0, 0, 0, 0, 0,  0,  0}));
    EXPECT_STREQ(OutputFilename, "");
    EXPECT_STREQ(DirName, "");
}

TEST(Options, TablesHaveTheirSizes) {
    EXPECT_EQ(sizeof(fwfilename) / sizeof(fwfilename[0]), 256U);
    EXPECT_EQ(sizeof(fwfilename[0]), 255U);
    EXPECT_EQ(sizeof(device_list) / sizeof(device_list[0]), 256U);
    EXPECT_EQ(sizeof(device_list[0].PIDstr), 20U);
    EXPECT_EQ(sizeof(serial_no_list) / sizeof(serial_no_list[0]), 256U);
    EXPECT_GE(sizeof(serial_no_list[0].serial_number), 255U);
    EXPECT_EQ(sizeof(OutputFilename), 255U);
}

TEST(Options, ResetClearsNamesAndLists) {
    std::fill(std::begin(OutputFilename), std::end(OutputFilename), 'x');
    std::fill(std::begin(DirName), std::end(DirName), 'x');
    fwfilename[255][254] = 'x';
    device_list[255].PIDstr[19] = 'x';
    device_list[255].fe = reinterpret_cast<flashEntry*>(&OutputFilename);
    serial_no_list[255].serial_number[253] = 'x';
    serial_no_list[255].fe = reinterpret_cast<flashEntry*>(&OutputFilename);
    reset_options();
    EXPECT_EQ(std::count(std::begin(OutputFilename), std::end(OutputFilename), '\0'), 255);
    EXPECT_EQ(std::count(std::begin(DirName), std::end(DirName), '\0'),
              static_cast<std::ptrdiff_t>(sizeof(DirName)));
    EXPECT_EQ(fwfilename[255][254], '\0');
    EXPECT_EQ(device_list[255].PIDstr[19], '\0');
    EXPECT_EQ(device_list[255].fe, nullptr);
    EXPECT_EQ(serial_no_list[255].serial_number[253], '\0');
    EXPECT_EQ(serial_no_list[255].fe, nullptr);
}

TEST(Options, JournalsHaveDefaultNames) {
    const RunRequest request = accept({"-V"});
    EXPECT_STREQ(request.log_filename, "/tmp/zelfwupdate.log");
    EXPECT_STREQ(request.trace_filename, "/tmp/zelfwtrace.log");
    EXPECT_STREQ(request.config_filename, "");
    EXPECT_STREQ(request.display_filename, "");
    EXPECT_STREQ(request.rma_filename, "");
}

TEST(Options, NothingAtAllPrintsOnlyTheUsage) {
    expect_usage({});
}

TEST(Options, OptionsWithoutCommandPrintTheUsage) {
    expect_usage({"-f"});
    expect_usage({"-n", "1", "-o", "1", "-d", "3C02"});
    expect_usage({"--", "-U"});
    expect_usage({"firmware.dat"});
}

class OptionsAlone : public testing::TestWithParam<std::vector<std::string>> {};

TEST_P(OptionsAlone, PrintTheUsage) {
    expect_usage(GetParam());
}

using Arguments = std::vector<std::string>;

INSTANTIATE_TEST_SUITE_P(
    Each, OptionsAlone,
    testing::Values(Arguments{"-f"}, Arguments{"-a"}, Arguments{"-m"}, Arguments{"-c", "1"},
                    Arguments{"-d", "3C02"}, Arguments{"-s", "41"}, Arguments{"-r", "x"},
                    Arguments{"-p", "x"}, Arguments{"-l", "x"}, Arguments{"-t", "x"},
                    Arguments{"-n", "1"}, Arguments{"-o", "1"}, Arguments{"-w", "x"},
                    Arguments{"-0", "1"}, Arguments{"-1", "1"}, Arguments{"-2", "1"},
                    Arguments{"-3", "1"}, Arguments{"-4", "1"}),
    [](const auto& given) { return given.param[0].substr(1); });

struct CommandCase {
    std::vector<std::string> arguments;
    Command command;
    int code;
    bool matches_files_only;
};

class Commands : public testing::TestWithParam<CommandCase> {};

TEST_P(Commands, AreChosenByTheirOption) {
    const CommandCase& given = GetParam();
    const RunRequest request = accept(given.arguments);
    EXPECT_EQ(request.command, given.command);
    EXPECT_EQ(static_cast<int>(request.command), given.code);
    EXPECT_EQ(device_firmware_match_only, given.matches_files_only ? 1 : 0);
    EXPECT_EQ(list_devices, given.command == COMMAND_LIST ? 1 : 0);
}

TEST_P(Commands, MayBeRepeated) {
    std::vector<std::string> twice = GetParam().arguments;
    twice.insert(twice.end(), GetParam().arguments.begin(), GetParam().arguments.end());
    EXPECT_EQ(accept(twice).command, GetParam().command);
}

INSTANTIATE_TEST_SUITE_P(Each, Commands,
                         testing::Values(CommandCase{{"-R"}, COMMAND_RESET, 1, false},
                                         CommandCase{{"-C", "a"}, COMMAND_CONFIG_FILE, 2, true},
                                         CommandCase{{"-F", "a"}, COMMAND_FILES, 4, true},
                                         CommandCase{{"-U"}, COMMAND_UPDATE, 5, true},
                                         CommandCase{{"-L"}, COMMAND_LIST, 6, false},
                                         CommandCase{{"-S"}, COMMAND_SHOW_FILES, 7, false},
                                         CommandCase{{"-D", "a"}, COMMAND_DISPLAY_FILE, 8, false},
                                         CommandCase{{"-V"}, COMMAND_VERSION, 9, false},
                                         CommandCase{
                                             {"-G", "1"}, COMMAND_GET_COMPONENT, 11, false}),
                         [](const auto& given) { return given.param.arguments[0].substr(1); });

TEST(Options, TwoDifferentCommandsAreRefused) {
    const std::vector<std::vector<std::string>> commands = {
        {"-R"}, {"-C", "a"}, {"-F", "a"}, {"-U"}, {"-L"}, {"-S"}, {"-D", "a"}, {"-V"}, {"-G", "1"}};
    for (const auto& first : commands) {
        for (const auto& second : commands) {
            if (first != second) {
                std::vector<std::string> both = first;
                both.insert(both.end(), second.begin(), second.end());
                expect_usage(both);
            }
        }
    }
}

TEST(Options, CommandsAreExclusiveAlsoWithOptionsAround) {
    expect_usage({"-f", "-U", "-L"});
    expect_usage({"-U", "-f", "-L"});
    expect_usage({"-UL"});
    EXPECT_EQ(accept({"-F", "a.dat", "-F", "b.dat", "-f"}).command, COMMAND_FILES);
    EXPECT_EQ(accept({"-f", "-a", "-U", "-m", "-U"}).command, COMMAND_UPDATE);
}

TEST(Options, FlagsAreSetByTheirLetter) {
    accept({"-U", "-f"});
    EXPECT_EQ(force_update, 1);
    EXPECT_EQ(continue_on_failure, 0);
    accept({"-U", "-a"});
    EXPECT_EQ(continue_on_failure, 1);
    EXPECT_EQ(display_desktop_progress, 0);
    accept({"-U", "-m", "-m"});
    EXPECT_EQ(display_desktop_progress, 1);
    EXPECT_EQ(select_devices, 0);
}

TEST(Options, FlagsMayBeBundled) {
    EXPECT_EQ(accept({"-famU"}).command, COMMAND_UPDATE);
    EXPECT_EQ(force_update + continue_on_failure + display_desktop_progress, 3);
}

TEST(Options, NamesGoWhereTheyBelong) {
    const RunRequest request =
        accept({"-C", "c.cfg", "-r", "rma", "-p", "dir", "-w", "out", "-l", "log", "-t", "trace"});
    EXPECT_STREQ(request.config_filename, "c.cfg");
    EXPECT_STREQ(request.rma_filename, "rma");
    EXPECT_STREQ(request.log_filename, "log");
    EXPECT_STREQ(request.trace_filename, "trace");
    EXPECT_STREQ(DirName, "dir");
    EXPECT_STREQ(OutputFilename, "out");
    EXPECT_STREQ(accept({"-D", "d.dat"}).display_filename, "d.dat");
}

TEST(Options, TheLastOfARepeatedNameCounts) {
    const RunRequest request = accept({"-V", "-r", "a-long-name", "-r", "b", "-p", "dir-1", "-p",
                                       "d2", "-w", "out-1", "-w", "o2", "-l", "0", "-l", "log"});
    EXPECT_STREQ(request.rma_filename, "b");
    EXPECT_STREQ(request.log_filename, "log");
    EXPECT_STREQ(DirName, "d2");
    EXPECT_STREQ(OutputFilename, "o2");
}

TEST(Options, TheLastOfARepeatedCommandsNameCounts) {
    EXPECT_STREQ(accept({"-C", "first.cfg", "-C", "b"}).config_filename, "b");
    EXPECT_STREQ(accept({"-D", "first.dat", "-D", "b"}).display_filename, "b");
    EXPECT_STREQ(accept({"-V", "-t", "first", "-t", "b"}).trace_filename, "b");
}

TEST(Options, ZeroEmptiesTheNameOfAJournal) {
    const RunRequest request = accept({"-V", "-l", "0", "-t", "0"});
    EXPECT_STREQ(request.log_filename, "");
    EXPECT_STREQ(request.trace_filename, "");
    const RunRequest other = accept({"-V", "-l", "00", "-t", "0.log"});
    EXPECT_STREQ(other.log_filename, "00");
    EXPECT_STREQ(other.trace_filename, "0.log");
}

TEST(Options, FirmwareFilesAreListedInOrder) {
    accept({"-F", "b.dat", "-F", "a.dat", "-Fc.dat"});
    ASSERT_EQ(numberOffwfilenames, 3);
    EXPECT_STREQ(fwfilename[0], "b.dat");
    EXPECT_STREQ(fwfilename[1], "a.dat");
    EXPECT_STREQ(fwfilename[2], "c.dat");
}

TEST(Options, ProductIdsAreListedAsTyped) {
    accept({"-L", "-d", "3c02", "-d", "3C7A"});
    ASSERT_EQ(NumberOfDeviceListEntries, 2);
    EXPECT_STREQ(device_list[0].PIDstr, "3c02");
    EXPECT_STREQ(device_list[1].PIDstr, "3C7A");
    EXPECT_EQ(device_list[0].fe, nullptr);
    EXPECT_EQ(select_devices, 1);
    EXPECT_EQ(NumberOfSerialNoListEntries, 0);
}

TEST(Options, SerialNumbersAreListedAsTyped) {
    accept({"-L", "-s", "41-FFFFF", "-s", ""});
    ASSERT_EQ(NumberOfSerialNoListEntries, 2);
    EXPECT_STREQ(serial_no_list[0].serial_number, "41-FFFFF");
    EXPECT_STREQ(serial_no_list[1].serial_number, "");
    EXPECT_EQ(serial_no_list[0].fe, nullptr);
    EXPECT_EQ(select_devices, 1);
    EXPECT_EQ(NumberOfDeviceListEntries, 0);
}

struct TimeoutCase {
    const char* option;
    int* variable;
};

class Timeouts : public testing::TestWithParam<TimeoutCase> {};

TEST_P(Timeouts, AreReadAsDecimalNumbers) {
    const std::vector<int> before = numbers();
    const TimeoutCase& given = GetParam();
    const auto value_of = [&given](const std::string& text) {
        accept({"-R", given.option, text});
        return *given.variable;
    };
    EXPECT_EQ(value_of("1234"), 1234);
    EXPECT_EQ(value_of("0"), 0);
    EXPECT_EQ(value_of("077"), 77);
    EXPECT_EQ(value_of("0x10"), 0);
    EXPECT_EQ(value_of("abc"), 0);
    EXPECT_EQ(value_of(""), 0);
    EXPECT_EQ(value_of("12ms"), 12);
    EXPECT_EQ(value_of("2147483647"), 2147483647);
    EXPECT_EQ(value_of("4294967297"), 2147483647);
    EXPECT_EQ(value_of("99999999999999999999"), 2147483647);
    std::vector<int> after = numbers();
    const auto index = static_cast<std::size_t>(given.option[1] - '0');
    EXPECT_NE(after[index], before[index]);
    after[index] = before[index];
    EXPECT_EQ(after, before);
}

INSTANTIATE_TEST_SUITE_P(Each, Timeouts,
                         testing::Values(TimeoutCase{"-0", &information_timeout},
                                         TimeoutCase{"-1", &erase_timeout},
                                         TimeoutCase{"-2", &command_timeout},
                                         TimeoutCase{"-3", &checksum_timeout},
                                         TimeoutCase{"-4", &reset_sleep_timeout}),
                         [](const auto& given) { return std::string(given.param.option + 1); });

struct LevelCase {
    const char* text;
    int output_level;
    int verbose;
};

class Levels : public testing::TestWithParam<LevelCase> {};

TEST_P(Levels, SetConsoleAndVerbosity) {
    accept({"-U", "-n", GetParam().text});
    EXPECT_EQ(OutputLevel, GetParam().output_level);
    EXPECT_EQ(Verbose, GetParam().verbose);
}

INSTANTIATE_TEST_SUITE_P(Each, Levels,
                         testing::Values(LevelCase{"0", 0, 0}, LevelCase{"1", 2, 1},
                                         LevelCase{"2", 3, 1}, LevelCase{"3", 4, 1},
                                         LevelCase{"abc", 0, 0}, LevelCase{"", 0, 0},
                                         LevelCase{"2x", 3, 1}));

TEST(Options, OtherLevelsAreRefused) {
    for (const char* level : {"4", "5", "100", "2147483648", "4294967296", "4294967297"}) {
        expect_usage({"-U", "-n", level});
        EXPECT_EQ(OutputLevel, 1) << level;
    }
}

TEST(Options, TheLastLevelWins) {
    accept({"-n", "1", "-n", "abc", "-U"});
    EXPECT_EQ(OutputLevel, 0);
    EXPECT_EQ(Verbose, 0);
    accept({"-n", "0", "-n", "3", "-U"});
    EXPECT_EQ(OutputLevel, 4);
    EXPECT_EQ(Verbose, 1);
}

struct SwitchCase {
    const char* text;
    int* variable;
    int value;
};

class MiscellaneousSwitches : public testing::TestWithParam<SwitchCase> {};

TEST_P(MiscellaneousSwitches, SetOneVariable) {
    std::vector<int> before = numbers();
    const int old_value = *GetParam().variable;
    accept({"-R", "-o", GetParam().text});
    EXPECT_EQ(*GetParam().variable, GetParam().value);
    EXPECT_NE(old_value, GetParam().value);
    *GetParam().variable = old_value;
    EXPECT_EQ(numbers(), before);
}

INSTANTIATE_TEST_SUITE_P(
    Each, MiscellaneousSwitches,
    testing::Values(SwitchCase{"0", &sdv_dawu_hw, 1}, SwitchCase{"x", &sdv_dawu_hw, 1},
                    SwitchCase{"", &sdv_dawu_hw, 1},
                    SwitchCase{"1", &use_information_record_ec_level, 1},
                    SwitchCase{"2", &background_read, 0}, SwitchCase{"3", &old_progress, 1},
                    SwitchCase{"4", &skip_version_check, 1}, SwitchCase{"5", &oem_vendor, 1},
                    SwitchCase{"6", &extended_components, 1},
                    SwitchCase{"99", &check_for_update_only, 1}));

TEST(Options, SeveralMiscellaneousSwitchesMayBeSet) {
    accept({"-o", "1", "-o", "4", "-U", "-o", "99", "-o", "4"});
    EXPECT_EQ(use_information_record_ec_level, 1);
    EXPECT_EQ(skip_version_check, 1);
    EXPECT_EQ(check_for_update_only, 1);
    EXPECT_EQ(sdv_dawu_hw, 0);
}

TEST(Options, OtherMiscellaneousSwitchesAreRefused) {
    for (const char* number : {"7", "8", "98", "100", "4294967296", "4294967302"}) {
        expect_usage({"-U", "-o", number});
    }
    expect_usage({"-o", "7"});
}

TEST(Options, OptionHelpIsPrintedAtOnce) {
    for (const char* text : {"?", "help"}) {
        for (const auto& arguments : std::vector<std::vector<std::string>>{
                 {"-o", text}, {"-U", "-o", text, "-L"}, {"-o", text, "-n", "9"}}) {
            const Parsed parsed = parse(arguments);
            EXPECT_EQ(parsed.code, check_usage);
            EXPECT_EQ(parsed.output, golden("option_help.txt"));
            EXPECT_EQ(parsed.errors, "");
        }
    }
}

TEST(Options, HelpIsPrintedAtOnce) {
    for (const auto& arguments :
         std::vector<std::vector<std::string>>{{"-?"}, {"-U", "-?", "-L"}, {"-f?", "-n", "9"}}) {
        const Parsed parsed = parse(arguments);
        EXPECT_EQ(parsed.code, check_usage);
        EXPECT_EQ(parsed.output, golden("usage.txt") + golden("help.txt"));
        EXPECT_EQ(parsed.errors, "");
    }
}

TEST(Options, AnUnknownOptionPrintsUsageAndHelp) {
    for (const char* option : {"-x", "-u", "-5", "-9", "-:", "-;", "-z", "--help"}) {
        const Parsed parsed = parse({"-U", option});
        EXPECT_EQ(parsed.code, check_usage) << option;
        EXPECT_EQ(parsed.output, golden("usage.txt") + golden("help.txt")) << option;
        EXPECT_THAT(parsed.errors, HasSubstr("invalid option")) << option;
    }
}

class ArgumentOptions : public testing::TestWithParam<const char*> {};

TEST_P(ArgumentOptions, WithoutAnArgumentAtTheEndPrintUsageAndHelp) {
    const Parsed parsed = parse({"-f", GetParam()});
    EXPECT_EQ(parsed.code, check_usage);
    EXPECT_EQ(parsed.output, golden("usage.txt") + golden("help.txt"));
    EXPECT_THAT(parsed.errors, HasSubstr("requires an argument"));
}

TEST_P(ArgumentOptions, TakeNoArgumentThatBeginsWithADash) {
    const std::vector<int> before = numbers();
    expect_usage({GetParam(), "-x", "-U"});
    expect_usage({GetParam(), "-1", "-U"});
    expect_usage({"-U", GetParam(), "-"});
    expect_usage({"-U", GetParam(), "-L"});
    std::vector<int> after = numbers();
    after[14] = before[14];  // -U itself
    EXPECT_EQ(after, before);
}

INSTANTIATE_TEST_SUITE_P(Each, ArgumentOptions,
                         testing::Values("-C", "-F", "-G", "-D", "-c", "-d", "-s", "-r", "-p", "-l",
                                         "-t", "-n", "-o", "-w", "-0", "-1", "-2", "-3", "-4"),
                         [](const auto& given) { return std::string(given.param + 1); });

TEST(Options, EmptyArgSeesALeadingDash) {
    EXPECT_EQ(emptyArg("-"), 1);
    EXPECT_EQ(emptyArg("-x"), 1);
    EXPECT_EQ(emptyArg(""), 0);
    EXPECT_EQ(emptyArg("x-"), 0);
    EXPECT_EQ(emptyArg(" -"), 0);
}

struct ExplainedCode {
    const char* argument;
    const char* output;
};

class ExplainedCodes : public testing::TestWithParam<ExplainedCode> {};

TEST_P(ExplainedCodes, ArePrintedAtOnce) {
    for (const auto& arguments : std::vector<std::vector<std::string>>{
             {"-E", GetParam().argument}, {"-U", "-E", GetParam().argument, "-L", "-n", "9"}}) {
        const Parsed parsed = parse(arguments);
        EXPECT_EQ(parsed.code, check_usage);
        EXPECT_EQ(parsed.output, GetParam().output);
        EXPECT_EQ(parsed.errors, "");
    }
}

INSTANTIATE_TEST_SUITE_P(
    Each, ExplainedCodes,
    testing::Values(
        ExplainedCode{"12", "Exit Code 12:  Segmentation Fault\n"},
        ExplainedCode{"0", "Exit Code 0:  All processing completed successfully\n"},
        ExplainedCode{"13", "Exit Code 13:  No output file specified\n"},
        ExplainedCode{"abc", "Exit Code 0:  All processing completed successfully\n"},
        ExplainedCode{"-1", "Exit Code -1:  Unrecognized exit code, valid range 0-13\n"},
        ExplainedCode{"-x", "Exit Code 0:  All processing completed successfully\n"},
        ExplainedCode{"14", "Exit Code 14:  Unrecognized exit code, valid range 0-13\n"},
        ExplainedCode{"99999999999",
                      "Exit Code 2147483647:  Unrecognized exit code, valid range 0-13\n"},
        ExplainedCode{"-99999999999",
                      "Exit Code -2147483648:  Unrecognized exit code, valid range 0-13\n"}));

TEST(Options, ExplainingWithoutACodePrintsUsageAndHelp) {
    const Parsed parsed = parse({"-E"});
    EXPECT_EQ(parsed.code, check_usage);
    EXPECT_EQ(parsed.output, golden("usage.txt") + golden("help.txt"));
}

TEST(Options, ComponentNumbersAreTakenAsTheyAre) {
    accept({"-G", "15", "-c", "14"});
    EXPECT_EQ(get_component_number, 15);
    EXPECT_EQ(comp_update_id, 14);
    accept({"-G", "0", "-c", "0"});
    EXPECT_EQ(get_component_number, 0);
    EXPECT_EQ(comp_update_id, 0);
    accept({"-G", "19", "-c", "2147483647"});
    EXPECT_EQ(get_component_number, 19);
    EXPECT_EQ(comp_update_id, 2147483647);
}

TEST(Options, AComponentThatIsNoNumberIsZero) {
    accept({"-G", "abc", "-c", "xyz"});
    EXPECT_EQ(get_component_number, 0);
    EXPECT_EQ(comp_update_id, 0);
}

TEST(Options, TheLastOfARepeatedNumberCounts) {
    accept(
        {"-G", "3", "-G", "4", "-c", "5", "-c", "6", "-0", "7", "-0", "8", "-4", "1", "-4", "9"});
    EXPECT_EQ(get_component_number, 4);
    EXPECT_EQ(comp_update_id, 6);
    EXPECT_EQ(information_timeout, 8);
    EXPECT_EQ(reset_sleep_timeout, 9);
}

/// An option that takes a text, with what makes its command line whole.
struct TextOption {
    const char* option;
    std::size_t longest;
    std::vector<std::string> rest;
};

class TextOptions : public testing::TestWithParam<TextOption> {
  protected:
    static Parsed parse_text(const std::string& text) {
        std::vector<std::string> arguments = {GetParam().option, text};
        arguments.insert(arguments.end(), GetParam().rest.begin(), GetParam().rest.end());
        return parse(arguments);
    }
    /// What was stored of it.
    static std::string stored(const RunRequest& request) {
        switch (GetParam().option[1]) {
            case 'C':
                return request.config_filename;
            case 'D':
                return request.display_filename;
            case 'F':
                return fwfilename[0];
            case 'd':
                return device_list[0].PIDstr;
            case 's':
                return serial_no_list[0].serial_number;
            case 'r':
                return request.rma_filename;
            case 'p':
                return DirName;
            case 'w':
                return OutputFilename;
            case 'l':
                return request.log_filename;
            default:
                return request.trace_filename;
        }
    }
};

TEST_P(TextOptions, AreTakenWholeUpToTheLimit) {
    const std::string longest(GetParam().longest, 'x');
    const Parsed parsed = parse_text(longest);
    EXPECT_EQ(parsed.code, goes_on);
    EXPECT_EQ(parsed.errors, "");
    EXPECT_EQ(stored(parsed.request), longest);
}

TEST_P(TextOptions, AreRefusedAboveTheLimitAndNeverCut) {
    for (const std::size_t length : {GetParam().longest + 1, GetParam().longest + 5000}) {
        const Parsed parsed = parse_text(std::string(length, 'x'));
        EXPECT_EQ(parsed.code, check_usage);
        EXPECT_EQ(parsed.output, "");
        EXPECT_EQ(parsed.errors, std::string("zelfwupdate: option ") + GetParam().option +
                                     ": the argument is longer than " +
                                     std::to_string(GetParam().longest) + " characters\n");
        EXPECT_EQ(stored(parsed.request).find('x'), std::string::npos);
    }
    EXPECT_EQ(numberOffwfilenames + NumberOfDeviceListEntries + NumberOfSerialNoListEntries, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Each, TextOptions,
    testing::Values(TextOption{"-C", 254, {}}, TextOption{"-D", 254, {}}, TextOption{"-F", 254, {}},
                    TextOption{"-d", 19, {"-L"}}, TextOption{"-s", 254, {"-L"}},
                    TextOption{"-r", 254, {"-L"}}, TextOption{"-p", 254, {"-S"}},
                    TextOption{"-w", 254, {"-G", any}}, TextOption{"-l", 254, {"-L"}},
                    TextOption{"-t", 254, {"-L"}}),
    [](const auto& given) { return std::string(given.param.option + 1); });

struct ListOption {
    const char* option;
    int* count;
};

class ListOptions : public testing::TestWithParam<ListOption> {};

TEST_P(ListOptions, HoldTwoHundredAndFiftySixEntries) {
    std::vector<std::string> arguments = repeated(GetParam().option, 256);
    if (GetParam().option[1] != 'F') {
        arguments = with_update(arguments);
    }
    accept(arguments);
    EXPECT_EQ(*GetParam().count, 256);
    const char* last = GetParam().option[1] == 'F'   ? fwfilename[255]
                       : GetParam().option[1] == 'd' ? device_list[255].PIDstr
                                                     : serial_no_list[255].serial_number;
    EXPECT_STREQ(last, "255");
}

TEST_P(ListOptions, RefuseOneMore) {
    const Parsed parsed = parse(repeated(GetParam().option, 257));
    EXPECT_EQ(parsed.code, check_usage);
    EXPECT_EQ(parsed.output, "");
    EXPECT_EQ(parsed.errors, std::string("zelfwupdate: option -") + GetParam().option[1] +
                                 ": given more than 256 times\n");
    EXPECT_EQ(*GetParam().count, 256);
}

INSTANTIATE_TEST_SUITE_P(Each, ListOptions,
                         testing::Values(ListOption{"-F", &numberOffwfilenames},
                                         ListOption{"-d", &NumberOfDeviceListEntries},
                                         ListOption{"-s", &NumberOfSerialNoListEntries}),
                         [](const auto& given) { return std::string(given.param.option + 1); });

TEST(Options, ArgumentsThatAreNoOptionAreNamed) {
    const Parsed parsed = parse({"-U", "stray", "-d", "3C02", "%s%n", "--", "-L"});
    EXPECT_EQ(parsed.code, goes_on);
    EXPECT_EQ(parsed.request.command, COMMAND_UPDATE);
    EXPECT_EQ(parsed.output, "");
    EXPECT_EQ(parsed.errors,
              "zelfwupdate: 'stray' is no option, it is ignored\n"
              "zelfwupdate: '%s%n' is no option, it is ignored\n"
              "zelfwupdate: '-L' is no option, it is ignored\n");
}

TEST(Options, AnOptionLooksOnlyAtItsOwnArgument) {
    accept({"-p", "x", "-U", "-fd3C02"});
    EXPECT_STREQ(DirName, "x");
    EXPECT_EQ(force_update, 1);
    EXPECT_STREQ(device_list[0].PIDstr, "3C02");
    expect_usage({"-p", "-x", "-U"});
}
