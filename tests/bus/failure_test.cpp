// Updates that fail: what is said, what the device is left with, and how it recovers.
#include "support/bus_test.h"
#include "support/hexadecimal.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <thread>

using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

namespace {

/// Lines between the decision and the end of a failed update of the printer's component 1.
constexpr char gone[] =
    "Firmware update FAILED\n"
    "Firmware update of Product ID 3c35 COMP: 1 finished, rc=5\n"
    "Device gone while firmware update of Product ID 3c35 COMP: 1 finished, stopping update\n"
    "Error -5 flashing devices\n"
    "Device disconnected\n"
    "No devices updated\n";
constexpr char write_error[] =
    "Firmware update FAILED\n"
    "Firmware update of Product ID 3c35 COMP: 1 finished, rc=2\n"
    "Update failed of Product ID 3c35 COMP: 1 finished, rc=2, stopping update\n"
    "Error -2 flashing devices\n"
    "No devices updated\n";
constexpr char corrupted[] =
    "Firmware update FAILED\n"
    "Firmware update of Product ID 3c35 COMP: 1 finished, rc=14\n"
    "Update failed of Product ID 3c35 COMP: 1 finished, rc=14, stopping update\n"
    "Error -14 flashing devices\n"
    "Firmware update file bad\n"
    "No devices updated\n";

/// A printer whose component 1 is sent an image of two information and five data records.
class Failure : public BusTest {
  protected:
    Failure() { add_firmware("boot.dat", image_file); }

    void set_fault(const std::string& at, const std::string& action, const std::string& keys = "") {
        set_bus({printer()}, fault_text("printer", at, action, keys));
    }
    static SimDevice printer() {
        SimDevice device;
        device.components = {{}, {.id = 1}};
        return device;
    }
    /// The update fails with these last lines; further options set short time-outs.
    RunResult expect_failure(const std::string& last_lines,
                             const std::vector<std::string>& options = {}) {
        RunResult result = update(options);
        EXPECT_EQ(result.exit_code, 6);
        EXPECT_THAT(result.console, EndsWith(last_lines));
        return result;
    }
    void expect_whole() {
        EXPECT_FALSE(state().component(1).broken);
        EXPECT_EQ(state().component(1).level, "01.02");
    }
    void expect_broken() {
        EXPECT_TRUE(state().component(1).broken);
        EXPECT_EQ(run({"-L"}).console, list_line(0x3C35, 0, "01.02", "PR0001") + "\n" +
                                           list_line(0x3C35, 1, "01.00", "PR0001") + "\n");
    }
    /// A plain update on a sound bus brings the component to the file's level.
    void expect_recovery() {
        set_bus({printer()});
        EXPECT_EQ(update().exit_code, 0);
        EXPECT_FALSE(state().component(1).broken);
        EXPECT_EQ(state().component(1).level, "01.05");
        EXPECT_EQ(image("printer", 1), image_file.body());
    }
    /// A device that reset or was replugged in the last run is back after this.
    /// Of a test in real time.
    static void wait_for_return() { std::this_thread::sleep_for(std::chrono::milliseconds(400)); }
    int erases() const {
        const auto sent = commands("printer");
        return static_cast<int>(std::count(sent.begin(), sent.end(), erase_command));
    }

    const FirmwareFile image_file = {.component = 1};
};

}  // namespace

TEST_F(Failure, UnplugAtTheErase) {
    set_fault("erase", "unplug");
    expect_failure(std::string("Erase of flash image area failed, rc=13\n") + gone);
    expect_whole();
    expect_recovery();
}

TEST_F(Failure, UnplugAtARecord) {
    set_fault("record", "unplug", "number = 5");
    const RunResult result = expect_failure(gone);
    EXPECT_THAT(result.log, HasSubstr("Write device not connected, rc=-4 (usage=a001)\n"));
    EXPECT_THAT(history(), ElementsAre("lost"));
    expect_broken();
    expect_recovery();
}

TEST_F(Failure, UnplugWhileARecordIsWorkedOn) {
    set_fault("record", "unplug", "number = 5\nms = 0.5");
    const RunResult result = update({"-2", "1000"});
    EXPECT_EQ(result.exit_code, 6);
    expect_broken();
    expect_recovery();
}

TEST_F(Failure, UnplugAtTheChecksum) {
    set_fault("checksum", "unplug");
    expect_failure(gone);
    expect_broken();
    expect_recovery();
}

TEST_F(Failure, UnpluggedDeviceThatComesBackIsFoundByTheNextRun) {
    run_in_real_time();
    set_fault("record", "unplug", "number = 5\nreplug_ms = 100");
    expect_failure(gone);
    wait_for_return();
    expect_recovery();
}

TEST_F(Failure, StallAtARecord) {
    set_fault("record", "stall", "number = 5");
    const RunResult result = expect_failure(write_error);
    EXPECT_THAT(result.log, HasSubstr("Write pipe error, rc=-9 (usage=a001)\n"));
    expect_broken();
    expect_recovery();
}

TEST_F(Failure, InputOutputErrorAtARecord) {
    set_fault("record", "io-error", "number = 5");
    const RunResult result = expect_failure(write_error);
    EXPECT_THAT(result.log, HasSubstr("Write failed, rc=-1 (usage=a001)\n"));
    expect_recovery();
}

TEST_F(Failure, RejectedRecord) {
    set_fault("record", "reject", "number = 5");
    const RunResult result = expect_failure(write_error);
    EXPECT_THAT(result.log,
                HasSubstr("Bad status (80) on write of record, stopping firmware update\n"));
    expect_broken();
    expect_recovery();
}

TEST_F(Failure, OperationErrorOnARecord) {
    set_fault("record", "operation-error", "number = 5");
    const RunResult result = expect_failure(write_error);
    EXPECT_THAT(result.log,
                HasSubstr("Bad status (40) on write of record, stopping firmware update\n"));
    expect_recovery();
}

TEST_F(Failure, RecordsStatusNeedNotSayCompleted) {
    set_fault("record", "late", "number = 5\nms = 100");
    EXPECT_EQ(update().exit_code, 0);
    EXPECT_EQ(image("printer", 1), image_file.body());
}

TEST_F(Failure, RecordThatIsNotAnswered) {
    set_fault("record", "no-answer", "number = 5");
    expect_failure(write_error, {"-2", "700"});
    expect_broken();
    expect_recovery();
}

TEST_F(Failure, RecordThatIsAnsweredTooLate) {
    set_fault("record", "late", "number = 5\nms = 3000");
    expect_failure(write_error, {"-2", "700"});
    expect_recovery();
}

TEST_F(Failure, RecordsAfterAFailedOneAreNotSent) {
    set_fault("record", "reject", "number = 5");
    update();
    const auto messages = image_file.messages();
    EXPECT_THAT(commands("printer"), Contains(messages[4]));
    EXPECT_THAT(commands("printer"), Not(Contains(messages[5])));
    EXPECT_THAT(commands("printer"), Not(Contains(messages.back())));
}

TEST_F(Failure, RejectedEraseIsTriedOnceMore) {
    set_fault("erase", "reject");
    const RunResult result = update();
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.log, HasSubstr("Command reject erasing image, trying one more time\n"));
    EXPECT_EQ(erases(), 2);
    EXPECT_EQ(image("printer", 1), image_file.body());
}

TEST_F(Failure, SecondRejectOfTheEraseEndsTheUpdate) {
    set_fault("erase", "reject", "times = \"always\"");
    const RunResult result =
        expect_failure(std::string("Erase of flash image area failed, rc=2\n") + write_error);
    EXPECT_THAT(result.log,
                HasSubstr("Bad status (80) on second erase of image, stop flash operation\n"));
    EXPECT_EQ(erases(), 2);
    expect_whole();
    expect_recovery();
}

TEST_F(Failure, OperationErrorOnTheEraseEndsTheUpdateAtOnce) {
    set_fault("erase", "operation-error");
    const RunResult result =
        expect_failure(std::string("Erase of flash image area failed, rc=2\n") + write_error);
    EXPECT_THAT(result.log, HasSubstr("Operation error on erase of image, stop flash operation\n"));
    EXPECT_EQ(erases(), 1);
    expect_whole();
}

TEST_F(Failure, EraseThatIsNotAnswered) {
    set_fault("erase", "no-answer");
    const RunResult result = expect_failure(
        std::string("Erase of flash image area failed, rc=7\n") + write_error, {"-1", "700"});
    EXPECT_THAT(result.log, HasSubstr("Read failed on status of erase command, rc=7\n"));
    expect_whole();
    expect_recovery();
}

TEST_F(Failure, ChecksumThatIsNotAnswered) {
    set_fault("checksum", "no-answer");
    const RunResult result = expect_failure(write_error, {"-3", "700"});
    EXPECT_THAT(result.log, HasSubstr("Read of checksm write status failed\n"));
    expect_broken();
    expect_recovery();
}

TEST_F(Failure, EachCommandHasItsOwnTimeout) {
    const std::string late = "ms = 2500";
    set_bus({printer()}, fault_text("printer", "checksum", "late", late));
    EXPECT_EQ(update({"-1", "1500", "-2", "1500"}).exit_code, 0);
    set_bus({printer()}, fault_text("printer", "erase", "late", late));
    EXPECT_EQ(update({"-f", "-2", "1500", "-3", "1500"}).exit_code, 0);
    set_bus({printer()}, fault_text("printer", "record", "late", late));
    EXPECT_EQ(update({"-f", "-1", "1500", "-3", "1500"}).exit_code, 0);
}

TEST_F(Failure, RejectedChecksum) {
    set_fault("checksum", "reject");
    const RunResult result = expect_failure(write_error);
    EXPECT_THAT(result.log, HasSubstr("Bad status (80) on write of checksum\n"));
    expect_recovery();
}

TEST_F(Failure, WrongChecksumLeavesTheComponentBroken) {
    set_bus({printer()});
    FirmwareFile file = image_file;
    file.right_checksum = false;
    add_firmware("boot.dat", file);
    const RunResult result = expect_failure(write_error);
    EXPECT_THAT(result.log, HasSubstr("Bad status (40) on write of checksum\n"));
    EXPECT_THAT(history(), ElementsAre("bad-checksum"));
    expect_broken();
    add_firmware("boot.dat", image_file);
    expect_recovery();
}

TEST_F(Failure, BrokenComponentTakesALowerLevelByForce) {
    set_fault("record", "reject", "number = 5");
    expect_failure(write_error);
    set_bus({printer()});
    const FirmwareFile older = {.level = "0100", .component = 1};
    add_firmware("boot.dat", older);
    EXPECT_EQ(update().exit_code, 6);
    EXPECT_EQ(update({"-f"}).exit_code, 0);
    EXPECT_FALSE(state().component(1).broken);
    EXPECT_EQ(image("printer", 1), older.body());
}

TEST_F(Failure, FileWithoutEndMarkIsCorrupt) {
    set_bus({printer()});
    const std::string bytes = image_file.bytes();
    add_raw_firmware("boot.dat", bytes.substr(0, bytes.size() - 3));
    expect_failure(std::string("\nFile corrupted, stopping update\n\n") + corrupted);
    EXPECT_THAT(history(), ElementsAre("stopped"));
    expect_broken();
    add_firmware("boot.dat", image_file);
    expect_recovery();
}

TEST_F(Failure, RecordThatIsCutShortIsNotSent) {
    set_bus({printer()});
    const std::string bytes = image_file.bytes();
    add_raw_firmware("boot.dat", bytes.substr(0, bytes.size() - 7));
    expect_failure(std::string("\nFile corrupted, stopping update\n\n") + corrupted);
    EXPECT_THAT(commands("printer"), Contains(image_file.messages()[5]));
    EXPECT_THAT(commands("printer"), Not(Contains(image_file.messages()[6])));
}

TEST_F(Failure, FileWithoutChecksumIsBad) {
    set_bus({printer()});
    const std::string bytes = image_file.bytes();
    add_raw_firmware("boot.dat", bytes.substr(0, bytes.size() - 2));
    expect_failure(std::string("Firmware update file apparently bad\n") + write_error);
    expect_broken();
}

TEST_F(Failure, RefusedChecksumThatCouldNotBeReadIsAnUncertainSuccess) {
    // The endpoint halts at the third report of the image, with four to six of the listing before.
    set_bus({printer()}, fault_text("printer", "interrupt", "stall", "number = 9") +
                             fault_text("printer", "checksum", "reject"));
    const RunResult result = update();
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.console, EndsWith("Updated 1 device\n"));
    expect_broken();
    EXPECT_THAT(result.log, testing::ContainsRegex(
                                "The result is uncertain: [0-9]+ status reports could not be "
                                "read\nFirmware update of Product ID 3c35 COMP: 1 finished, rc=0"));
    expect_recovery();
}

TEST_F(Failure, OrdinaryUpdateIsNotCalledUncertain) {
    set_bus({printer()}, fault_text("printer", "record", "late", "number = 3\nms = 300") +
                             fault_text("printer", "erase", "reject"));
    const RunResult result = update();
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.log, Not(HasSubstr("uncertain")));
}

TEST_F(Failure, ReportThatIsTooShortForARecordIsNamedBeforeTheErase) {
    SimDevice device = printer();
    device.interface_keys = "output_size = 15\n";
    set_bus({device});
    const RunResult result = update();
    EXPECT_THAT(result.console,
                HasSubstr("    EC level when complete should be 01.05.00\n"
                          "Messages are cut short: record 3 needs 16 bytes, the device's report "
                          "holds 15 (records cut short: 5)\n"));
}

TEST_F(Failure, MainComponentIsResetAfterAFailedTransfer) {
    run_in_real_time();
    set_bus({SimDevice{}}, fault_text("printer", "record", "reject", "number = 5"));
    std::filesystem::remove(firmware_path("boot.dat"));
    add_firmware("main.dat", {});
    const RunResult result = update();
    EXPECT_EQ(result.exit_code, 6);
    EXPECT_THAT(result.console,
                EndsWith("Firmware update FAILED\nReset to be done for PID 3c35\n"
                         "Firmware update of Product ID 3c35 COMP: 0 finished, rc=2\n"
                         "Update failed of Product ID 3c35 COMP: 0 finished, rc=2, stopping "
                         "update\nError -2 flashing devices\nNo devices updated\n"));
    EXPECT_EQ(state().resets, 1);
    EXPECT_TRUE(state().component(0).broken);
    wait_for_return();
    set_bus({SimDevice{}});
    EXPECT_EQ(update().exit_code, 0);
    EXPECT_EQ(state().component(0).level, "01.05");
}

TEST_F(Failure, MainComponentIsNotResetAfterAFailedErase) {
    set_bus({SimDevice{}}, fault_text("printer", "erase", "operation-error"));
    std::filesystem::remove(firmware_path("boot.dat"));
    add_firmware("main.dat", {});
    EXPECT_EQ(update().exit_code, 6);
    EXPECT_EQ(state().resets, 0);
}

namespace {

/// The printer of the failures, and a scanner behind it that is sound.
class FailureAmongSeveral : public Failure {
  protected:
    FailureAmongSeveral() { add_firmware("scanner.dat", scanner_file); }

    void set_printer_fault(const std::string& at, const std::string& action,
                           const std::string& keys = "") {
        set_bus({printer(),
                 {.name = "scanner",
                  .product = 0x3C36,
                  .serial = "SC0001",
                  .components = {{}, {.id = 1}}}},
                fault_text("printer", at, action, keys));
    }
    void expect_scanner_updated() {
        EXPECT_EQ(state("scanner").component(1).level, "01.05");
        EXPECT_EQ(image("scanner", 1), scanner_file.body());
    }

    const FirmwareFile scanner_file = {.product = 0x3C36, .component = 1};
};

}  // namespace

TEST_F(FailureAmongSeveral, ContinuesWithTheNextDeviceOnRequest) {
    set_printer_fault("record", "reject", "number = 5");
    const RunResult result = update({"-a"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.console,
                HasSubstr("Update failed of Product ID 3c35 COMP: 1 finished, rc=2, continue to "
                          "next device\n"));
    EXPECT_THAT(result.console, EndsWith("Updated 1 device\n"));
    expect_scanner_updated();
    EXPECT_TRUE(state("printer").component(1).broken);
}

TEST_F(FailureAmongSeveral, ContinuesAfterADeviceThatIsGoneOnRequest) {
    set_printer_fault("record", "unplug", "number = 5");
    const RunResult result = update({"-a"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.console,
                HasSubstr("Device gone while firmware update of Product ID 3c35 COMP: 1 finished, "
                          "continue to next device\n"));
    EXPECT_THAT(result.console, EndsWith("Updated 1 device\n"));
    expect_scanner_updated();
}

TEST_F(FailureAmongSeveral, WithoutTheRequestTheSumOfThePassIsTheError) {
    set_printer_fault("record", "reject", "number = 5");
    const RunResult result = update();
    EXPECT_EQ(result.exit_code, 6);
    // Minus the failure's code 2, plus the scanner's success.
    EXPECT_THAT(result.console, EndsWith("Firmware update of Product ID 3c36 COMP: 1 finished, "
                                         "rc=0\nError -1 flashing devices\nNo devices updated\n"));
    expect_scanner_updated();
}

TEST_F(FailureAmongSeveral, GoneDeviceEndsAsAnErrorThoughAnotherWasUpdated) {
    set_printer_fault("erase", "unplug");
    const RunResult result = update();
    EXPECT_EQ(result.exit_code, 6);
    EXPECT_THAT(result.console, EndsWith("Error -4 flashing devices\nNo devices updated\n"));
    expect_scanner_updated();
}

TEST_F(FailureAmongSeveral, DeviceThatCannotBeOpenedForItsUpdateCountsAsASuccess) {
    // Opened by the enumeration and for its information before.
    set_printer_fault("open", "refuse", "number = 3");
    const RunResult result = update();
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.console, EndsWith("Updated 2 devices\n"));
    EXPECT_THAT(result.console,
                HasSubstr("Nothing was sent to Product ID 3c35 COMP: 1: it can't be opened\n"));
    EXPECT_EQ(erases(), 0);
    expect_scanner_updated();
}

TEST_F(FailureAmongSeveral, OtherComponentsOfAFailedDeviceAreNotVisitedWithoutTheRequest) {
    SimDevice device = printer();
    device.components.push_back({.id = 2});
    const std::string fault = fault_text("printer", "record", "reject", "number = 5");
    set_bus({device}, fault);
    add_firmware("font.dat", {.component = 2});
    EXPECT_EQ(update().exit_code, 6);
    EXPECT_EQ(erases(), 1);
}

TEST_F(FailureAmongSeveral, OtherComponentsOfAFailedDeviceAreVisitedOnRequest) {
    SimDevice device = printer();
    device.components.push_back({.id = 2});
    const std::string fault = fault_text("printer", "record", "reject", "number = 5");
    set_bus({device}, fault);
    const FirmwareFile font = {.component = 2};
    add_firmware("font.dat", font);
    const RunResult result = update({"-a"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.console, EndsWith("Updated 1 device\n"));
    EXPECT_EQ(image("printer", 2), font.body());
}
