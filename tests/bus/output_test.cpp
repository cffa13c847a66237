// Console, log and progress of whole runs.
#include "support/bus_test.h"

#include <gmock/gmock.h>

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr char separator[] = "==================================================\n";

class Output : public BusTest {
  protected:
    /// A printer and an image of seven records for its component 1.
    void set_up_update() {
        SimDevice device;
        device.components = {{}, {.id = 1, .build = 2}};
        set_bus({device});
        add_firmware("boot.dat", {.component = 1, .build = 3});
    }
    std::string decision_lines() const {
        return "Firmware files:\n"
               "  boot.dat                    PID: 3c35 COMP: 1 TYPE: FW   EC=01.05.03, "
               "Version='1'\n"
               "\nFirmware file found:  " +
               firmware_path("boot.dat") +
               "\n"
               "  File   - PID: 3c35  COMP: 01  TYPE: FW   CONTROL: Increasing   EC: 01.05.03\n"
               "  Device - PID: 3c35  COMP: 01  TYPE: FW   CONTROL: Increasing   EC: 01.02.02 "
               "(SN='PR0001')\n"
               "    Starting firmware update of Product ID 3c35 COMP: 1\n"
               "    EC level when complete should be 01.05.03\n";
    }
    static std::string result_lines() {
        return "Firmware update of Product ID 3c35 COMP: 1 finished, rc=0\nUpdated 1 device\n";
    }
};

}  // namespace

TEST_F(Output, ConsoleOfAnUpdate) {
    set_up_update();
    EXPECT_EQ(update().console, decision_lines() + "...... %100 complete\n\n" + result_lines());
}

TEST_F(Output, ConsoleOfAnUpdateOfTheMainComponent) {
    SimDevice device;
    device.components = {{}, {.id = 1}, {.id = 2}};
    set_bus({device});
    add_firmware("main.dat", {.data_records = 18});
    EXPECT_EQ(update({"-4", "100"}).console,
              "Firmware files:\n"
              "  main.dat                    PID: 3c35 COMP: 0 TYPE: FW   EC=01.05   , "
              "Version='1'\n"
              "\nFirmware file found:  " +
                  firmware_path("main.dat") +
                  "\n"
                  "  File   - PID: 3c35  COMP: 00  TYPE: FW   CONTROL: Increasing   EC: 01.05.00\n"
                  "  Device - PID: 3c35  COMP: 00  TYPE: FW   CONTROL: Increasing   EC: 01.02.00 "
                  "(SN='PR0001')\n"
                  "    Starting firmware update of Product ID 3c35 COMP: 0\n"
                  "    EC level when complete should be 01.05.00\n"
                  ". %10  complete\n"
                  ". %20  complete\n"
                  ". %30  complete\n"
                  ". %40  complete\n"
                  ". %50  complete\n"
                  ". %60  complete\n"
                  ". %70  complete\n"
                  ". %80  complete\n"
                  ". %90  complete\n"
                  ". %100 complete\n"
                  "\n"
                  "Reset to be done for PID 3c35\n"
                  "Firmware update of Product ID 3c35 COMP: 0 finished, rc=0\n"
                  "Main component (0) of device 3c35 updated.\n"
                  "Sleeping for 100 milliseconds before using device again\n"
                  "Sleeping to allow reset device to respond\n"
                  "Sleeping finished\n"
                  "Updated 1 device\n");
}

TEST_F(Output, ConsoleOfAList) {
    SimDevice device;
    device.components = {{.build = 1}, {.id = 1, .level = "02.3f", .type = "configuration"}};
    set_bus({device, {.name = "scanner", .product = 0x3C36, .serial = "SC-77"}});
    EXPECT_EQ(run({"-L"}).console,
              "PID: 3c35  COMP: 00  TYPE: FW   EC: 01.02.01 (SN='PR0001')\n"
              "PID: 3c35  COMP: 01  TYPE: CFG  EC: 02.3f    (SN='PR0001')\n"
              "PID: 3c36  COMP: 00  TYPE: FW   EC: 01.02    (SN='SC-77')\n");
}

TEST_F(Output, LogOfAListHoldsWhatTheDeviceAnswered) {
    SimDevice device;
    device.components = {{.build = 1}, {.id = 1, .level = "02.3f", .type = "configuration"}};
    device.interface_keys = "device_type = 0x21\ndevice_id = 0x04\nprevious_level = \"01.01\"";
    set_bus({device});
    const RunResult result = run({"-L"});
    EXPECT_THAT(result.log, StartsWith("Quenta Firmware Update Utility\n\n"
                                       "Version 1.1.3 (i386)\n"));
    EXPECT_THAT(result.log, HasSubstr("Command line:  zelfwupdate -0 3000 -L -l "));
    EXPECT_THAT(result.log, HasSubstr(std::string(separator) + "USB Flash Started at "));
    EXPECT_THAT(result.log,
                HasSubstr("Processing 7a01:3c35:a000-1\n"
                          "Device Information Response:\n"
                          "    Type:        21\n"
                          "    ID:          04\n"
                          "    Command set: 01\n"
                          "    Feature:     d0\n"
                          "                 - Multiple Components\n"
                          "                 - Extended versioning\n"
                          "                 - Read all records supported\n"
                          "EC Level:\n"
                          "    Current Version:  01.02\n"
                          "    Previous Version: 01.01\n"
                          "    Current Build:    01\n"
                          "    Previous Build:   00\n"
                          "Extended version information available\n"
                          "    Component: ID: 00  Version: 01.02.01  Type: Firmware       "
                          "Control: Increasing\n"
                          "    Component: ID: 01  Version: 02.3f     Type: Configuration  "
                          "Control: Increasing\n"));
    EXPECT_THAT(result.log, HasSubstr("\nListing 1 devices:\n"));
    EXPECT_THAT(result.log, ContainsRegex("USB Flash ended at [^\n]+\n=+\n$"));
}

TEST_F(Output, QuietRunSaysNothingOnTheConsoleAndAllInTheLog) {
    set_up_update();
    const RunResult result = update({"-n", "0"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.console, "");
    EXPECT_EQ(result.errors, "");
    EXPECT_THAT(result.log, HasSubstr("    Starting firmware update of Product ID 3c35 COMP: 1\n"));
    EXPECT_THAT(result.log, HasSubstr("Updated 1 device\n"));
}

TEST_F(Output, VerboseRunTellsTheStepsOfTheUpdate) {
    set_up_update();
    EXPECT_EQ(update({"-n", "1"}).console,
              "Information response timeout: 3000 milliseconds\n" + decision_lines() +
                  "Erase completed, now sending 7 firmware update records from file\n"
                  "...... %100 complete\n\n"
                  "Main part of firmware update done, now sending checksum\n"
                  "Checksums written\n" +
                  result_lines());
}

TEST_F(Output, LevelOfTheCommandLineHoldsOverTheEnvironment) {
    set_up_update();
    settings.environment["ZELFWUPDATE_OUTPUT_LEVEL"] = "2";
    const RunResult result = update({"-n", "0"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.console, "");
    EXPECT_THAT(result.log, Not(HasSubstr("WriteFlash")));
}

TEST_F(Output, DebugMessagesGoToTheLogAlone) {
    set_up_update();
    const RunResult result = update({"-n", "2"});
    EXPECT_THAT(result.log, HasSubstr("3:Finding available Flash Devices\n"));
    EXPECT_THAT(result.log, HasSubstr("3:Found 1 device with update interface\n"));
    EXPECT_THAT(result.log, HasSubstr("3:WriteFlash rc=0\n"));
    EXPECT_THAT(result.log, HasSubstr("3:0: read_hid_messages started (device_closed=0)\n"));
    EXPECT_THAT(result.console, Not(HasSubstr("WriteFlash")));
}

TEST_F(Output, HighestLevelLogsEveryWait) {
    set_up_update();
    const RunResult result = update({"-n", "3"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.log,
                HasSubstr("4:sleeping while waiting (status_ready=0, device_closed=0)\n"));
}

TEST_F(Output, PlainRunLogsNoDebugMessages) {
    set_up_update();
    const RunResult result = update();
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.log, HasSubstr("\nUpdated 1 device\n"));
    EXPECT_THAT(result.log, Not(ContainsRegex("(^|\n)[0-9]:")));
}

TEST_F(Output, OldProgressShowsReadsAndWrites) {
    set_up_update();
    EXPECT_EQ(update({"-o", "3"}).console, decision_lines() + "rwrwrwrwrwrwrw\n" + result_lines());
}

TEST_F(Output, QuietRunShowsNoOldProgressEither) {
    set_up_update();
    const RunResult result = update({"-o", "3", "-n", "0"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.console, "");
    EXPECT_THAT(result.log, HasSubstr("\nUpdated 1 device\n"));
}

TEST_F(Output, JournalsCanBeSwitchedOff) {
    set_bus({SimDevice{}});
    EXPECT_EQ(run_plainly({"-L", "-l", "0", "-t", "0"}).exit_code, 0);
    EXPECT_FALSE(std::filesystem::exists(path("run.log")));
    EXPECT_FALSE(std::filesystem::exists(path("0")));
    EXPECT_THAT(run_plainly({"-V", "-l", "0", "-t", "0"}).console,
                StartsWith("Quenta Firmware Update Utility\n\nVersion 1.1.3 (i386)\n"));
}

TEST_F(Output, DefaultJournalsStandInTmp) {
    set_bus({SimDevice{}});
    std::filesystem::create_directory(path("tmp"));
    settings.private_tmp = path("tmp");
    const RunResult result = run_plainly({"-V"});
    if (result.exit_code == no_right_to_mount) {
        GTEST_SKIP() << failed_preparation(result);
    }
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(read_file(path("tmp/zelfwupdate.log")), HasSubstr("Version 1.1.3 (i386)\n"));
    const auto records = read_trace(path("tmp/zelfwtrace.log"));
    ASSERT_GT(records.size(), 1U);
    EXPECT_EQ(records[0].kind, record_kind::version);
}
