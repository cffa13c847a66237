// Every command with every exit code that it can give. Those of usage errors and of refused users
// are in tests/unit/command_line_test.cpp.
#include "support/bus_test.h"

#include <gmock/gmock.h>

using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

class ExitCode : public BusTest {};

}  // namespace

TEST_F(ExitCode, VersionGives0AndOpensNoBus) {
    settings.library = PARTIAL_LIBRARY_DIRECTORY "/libusb-1.0.so";
    const RunResult result = run({"-V"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.console, StartsWith("Quenta Firmware Update Utility\n\n"
                                           "Version 1.1.3 (i386)\n"));
}

TEST_F(ExitCode, ListGives0OrWithoutDevice5) {
    EXPECT_EQ(run({"-L"}).exit_code, 5);
    EXPECT_EQ(run({"-L"}).console, "No devices found\n");
    set_bus({SimDevice{}});
    EXPECT_EQ(run({"-L"}).exit_code, 0);
}

TEST_F(ExitCode, ListOfASelectionThatIsEmptyGives0) {
    set_bus({SimDevice{}});
    const RunResult result = run({"-L", "-d", "3c99"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.console, "");
}

TEST_F(ExitCode, UpdateGives0WhenSomethingWasUpdatedElse6) {
    set_bus({two_components()});
    add_firmware("boot.dat", {.component = 1});
    EXPECT_EQ(update().exit_code, 0);
    EXPECT_EQ(update().exit_code, 6);
}

TEST_F(ExitCode, UpdateWithoutFirmwareFilesGives5) {
    set_bus({SimDevice{}});
    const RunResult result = update();
    EXPECT_EQ(result.exit_code, 5);
    EXPECT_EQ(result.console, "No firmware files!\nNo devices found\n");
}

TEST_F(ExitCode, UpdateWithoutDirectoryGives5) {
    set_bus({SimDevice{}});
    const RunResult result = run({"-U", "-p", path("nowhere")});
    EXPECT_EQ(result.exit_code, 5);
    EXPECT_EQ(result.console, "No firmware files!\nNo devices found\n");
    EXPECT_THAT(result.log, Not(HasSubstr("Looking firmware files")));
}

TEST_F(ExitCode, UpdateWithoutDeviceGives5) {
    add_firmware("main.dat", {});
    const RunResult result = update();
    EXPECT_EQ(result.exit_code, 5);
    EXPECT_THAT(result.console, EndsWith("\nNo devices found\n"));
}

TEST_F(ExitCode, NamedFilesGiveTheUpdatesCodes) {
    set_bus({two_components()});
    const std::string file = add_firmware("boot.dat", {.component = 1});
    EXPECT_EQ(run({"-F", path("nothing.dat")}).exit_code, 5);
    EXPECT_EQ(run({"-F", file}).exit_code, 0);
    EXPECT_EQ(run({"-F", file}).exit_code, 6);
}

TEST_F(ExitCode, ConfigurationFileGivesTheUpdatesCodes) {
    set_bus({two_components()});
    write_file(path("zelflash.cfg"), add_firmware("boot.dat", {.component = 1}) + "\n");
    EXPECT_EQ(run({"-C", path("nothing.cfg")}).exit_code, 5);
    EXPECT_EQ(run({"-C", path("zelflash.cfg")}).exit_code, 0);
    EXPECT_EQ(run({"-C", path("zelflash.cfg")}).exit_code, 6);
}

TEST_F(ExitCode, ResetGives0OrWithoutDevice5) {
    RunResult result = run({"-R"});
    EXPECT_EQ(result.exit_code, 5);
    EXPECT_EQ(result.console, "No devices found\n");
    set_bus({SimDevice{}, {.name = "scanner", .product = 0x3C36, .serial = "SC0001"}});
    result = run({"-R"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.console,
              "Resetting device PID:3c35 SN='PR0001'\n"
              "Device PID:3c35 reset successfully\n"
              "Resetting device PID:3c36 SN='SC0001'\n"
              "Device PID:3c36 reset successfully\n"
              "Reset successful on 2 devices\n");
    EXPECT_EQ(state("printer").resets, 1);
    EXPECT_EQ(state("scanner").resets, 1);
}

TEST_F(ExitCode, ResetOfASelectionThatIsEmptyGives5) {
    set_bus({SimDevice{}});
    const RunResult result = run({"-R", "-d", "3c99"});
    EXPECT_EQ(result.exit_code, 5);
    EXPECT_EQ(result.console, "No devices selected\n");
}

TEST_F(ExitCode, ResetWhoseCommandFailsOnTheWireIsASuccess) {
    set_bus({SimDevice{}}, fault_text("printer", "reset", "stall"));
    const RunResult result = run({"-R"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.log, HasSubstr("Write pipe error, rc=-9 (usage=a001)\n"
                                      "Reset sent, write failure expected!\n"));
}

TEST_F(ExitCode, ResetEndsWith0AtADeviceThatCannotBeOpened) {
    // Opened by the enumeration and for its information before.
    set_bus({SimDevice{}, {.name = "scanner", .product = 0x3C36, .serial = "SC0001"}},
            fault_text("printer", "open", "refuse", "number = 3"));
    const RunResult result = run({"-R"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.console, "");
    EXPECT_THAT(commands("scanner"), Not(testing::Contains("04000040")));
}

TEST_F(ExitCode, ReadingAComponentGives0OrWithoutDevice5) {
    RunResult result = run({"-G", "1", "-w", path("read.dat")});
    EXPECT_EQ(result.exit_code, 5);
    EXPECT_EQ(result.console, "No devices found\n");
    set_bus({two_components()});
    result = run({"-G", "1", "-w", path("read.dat")});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.console,
              "Reading data from device PID:3c35 Component:1 SN='PR0001'\n"
              "Device PID:3c35 Component:1 read successfully\n");
}

TEST_F(ExitCode, ReadingFromASelectionThatIsEmptyGives5) {
    set_bus({two_components()});
    const RunResult result = run({"-G", "1", "-w", path("read.dat"), "-s", "nobody"});
    EXPECT_EQ(result.exit_code, 5);
    EXPECT_EQ(result.console, "No devices selected\n");
}

TEST_F(ExitCode, ReadingAComponentThatFailsGives8) {
    set_bus({two_components()}, fault_text("printer", "read-records", "reject"));
    const RunResult result = run({"-G", "1", "-w", path("read.dat")});
    EXPECT_EQ(result.exit_code, 8);
    EXPECT_EQ(result.console,
              "Reading data from device PID:3c35 Component:1 SN='PR0001'\n"
              "Device PID:3c35 Component:1 read failed, rc=2\n");
}

TEST_F(ExitCode, ReadingIntoAFileThatCannotBeMadeGives8) {
    set_bus({two_components()});
    const RunResult result = run({"-G", "1", "-w", path("nowhere/read.dat")});
    EXPECT_EQ(result.exit_code, 8);
    EXPECT_THAT(result.console, EndsWith("Device PID:3c35 Component:1 read failed, rc=-1\n"));
}

TEST_F(ExitCode, ReadingWithoutAnOutputFileGives0) {
    set_bus({two_components()});
    const RunResult result = run({"-G", "1"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.console, "No output file specified\n");
    EXPECT_THAT(result.log, HasSubstr("\nNo output file specified\n"));
    EXPECT_THAT(commands("printer"), IsEmpty());
}

TEST_F(ExitCode, ShowingFirmwareFilesGives0) {
    add_firmware("boot.dat", {.component = 1, .build = 4});
    const RunResult result = run({"-S", "-p", firmware_directory()});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.console,
              "Firmware files:\n"
              "  boot.dat                    PID: 3c35 COMP: 1 TYPE: FW   EC=01.05.04, "
              "Version='1'\n");
    settings.directory = firmware_directory();
    const RunResult without_path = run({"-S"});
    EXPECT_EQ(without_path.console, result.console);
    EXPECT_THAT(without_path.log, HasSubstr("Looking firmware files in directory .\n"
                                            "  Adding file './boot.dat' to list\n"));
}

TEST_F(ExitCode, ShowingNoFirmwareFilesGives0) {
    const RunResult result = run({"-S", "-p", path("nowhere")});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.console, "No firmware files!\n");
}

TEST_F(ExitCode, DisplayingAFirmwareFileGives0) {
    const std::string file = add_firmware("boot.dat", {.component = 1});
    const RunResult result = run({"-D", file});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.console, StartsWith("ProductID:  3c35\nEC Level:   01.05\nFlash Data:\n"));
    EXPECT_EQ(run({"-D", path("nothing.dat")}).console,
              "No flash file: " + path("nothing.dat") + "\n");
}

TEST_F(ExitCode, LibraryThatDoesNotStartGives3) {
    settings.environment["ZELFWSIM_BUS"] = path("nothing.toml");
    const RunResult result = run({"-L"});
    EXPECT_EQ(result.exit_code, 3);
    EXPECT_EQ(result.console, "Could not load HID libraries (rc=-1)\n");
}

TEST_F(ExitCode, SegmentationFaultGives12WithAReport) {
    run_in_real_time();  // the report sets an alarm
    set_bus({SimDevice{}}, fault_text("printer", "ec-level", "crash"));
    ends.expect_fault_report();
    const RunResult result = run({"-L"});
    EXPECT_EQ(result.exit_code, 12);
    EXPECT_THAT(result.console, StartsWith("\nSegmentation Fault.. Stopping\nsi_signo:  11\n"));
    EXPECT_THAT(result.log, Not(HasSubstr("USB Flash ended at")));
}

TEST_F(ExitCode, UpdateWithoutBackgroundReadingFindsNoDevice) {
    set_bus({SimDevice{}});
    add_firmware("main.dat", {});
    const RunResult result = update({"-o", "2"});
    EXPECT_EQ(result.exit_code, 5);
    EXPECT_THAT(result.log, HasSubstr("Timeout read disabled\n"));
}
