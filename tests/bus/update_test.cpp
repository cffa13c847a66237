// Whole updates: both passes, what the devices hold afterwards, counts and sleeps.
#include "support/bus_test.h"

#include <gmock/gmock.h>

#include <algorithm>

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;

namespace {

class WholeUpdate : public BusTest {};

SimDevice printer_with(const std::vector<SimComponent>& components) {
    SimDevice device;
    device.components = components;
    return device;
}

SimDevice scanner() {
    return {.name = "scanner", .product = 0x3C36, .serial = "SC0001"};
}

int count_commands(const std::vector<std::string>& sent, const std::string& command) {
    return static_cast<int>(std::count(sent.begin(), sent.end(), command));
}

/// Milliseconds between the end of the reset and the next command to the device.
double pause_after_reset(const TransferRecord& record, const std::string& device) {
    double reset_time = 0;
    for (const Transfer& one : record.class_requests(device)) {
        if (one.data == "04000040") {
            reset_time = one.time;
        } else if (reset_time > 0 && one.result > 0) {
            return one.time - reset_time;
        }
    }
    return 0;
}

}  // namespace

TEST_F(WholeUpdate, MainComponentRunsItsNewImageAfterTheReset) {
    const FirmwareFile file = {.build = 2};
    set_bus({SimDevice{}});
    add_firmware("main.dat", file);
    const RunResult result = update();
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.console, EndsWith("Updated 1 device\n"));
    EXPECT_EQ(image("printer", 0), file.body());
    EXPECT_EQ(state().component(0).level, "01.05");
    EXPECT_EQ(state().component(0).build, 2);
    EXPECT_FALSE(state().component(0).pending);
    EXPECT_EQ(state().resets, 1);
    EXPECT_THAT(history(), ElementsAre("ok"));
}

TEST_F(WholeUpdate, OtherComponentsNeedNoReset) {
    const FirmwareFile file = {.component = 1};
    set_bus({printer_with({{}, {.id = 1}})});
    add_firmware("boot.dat", file);
    EXPECT_EQ(update().exit_code, 0);
    EXPECT_EQ(image("printer", 1), file.body());
    EXPECT_EQ(state().component(1).level, "01.05");
    EXPECT_EQ(state().resets, 0);
}

TEST_F(WholeUpdate, SecondPassFindsTheDeviceAtItsNewAddress) {
    set_bus({printer_with({{}, {.id = 1}})});
    const FirmwareFile main = {}, boot = {.component = 1};
    add_firmware("main.dat", main);
    add_firmware("boot.dat", boot);
    const RunResult result = update();
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.console, EndsWith("Updated 2 devices\n"));
    EXPECT_EQ(image("printer", 0), main.body());
    EXPECT_EQ(image("printer", 1), boot.body());
    int erase_addresses[2] = {};
    int erases = 0;
    for (const Transfer& one : record().class_requests("printer")) {
        if (one.data == "04000100" && erases < 2) {
            erase_addresses[erases++] = one.address;
        }
    }
    EXPECT_EQ(erases, 2);
    EXPECT_NE(erase_addresses[0], erase_addresses[1]);
}

TEST_F(WholeUpdate, FourSecondsPassBetweenResetAndSecondPass) {
    run_in_real_time();
    set_bus({SimDevice{}});
    add_firmware("main.dat", {});
    EXPECT_THAT(update().console,
                HasSubstr("Sleeping to allow reset device to respond\nSleeping finished\n"));
    EXPECT_GE(pause_after_reset(record(), "printer"), 4000);
}

TEST_F(WholeUpdate, AllComponentsUpToNineteenAreVisited) {
    set_bus({printer_with({{}, {.id = 1}, {.id = 7}, {.id = 14, .type = "font"}})});
    const FirmwareFile seven = {.component = 7}, fourteen = {.component = 14, .type = 3};
    add_firmware("seven.dat", seven);
    add_firmware("fourteen.dat", fourteen);
    const RunResult result = update();
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.console, EndsWith("Updated 2 devices\n"));
    EXPECT_EQ(image("printer", 7), seven.body());
    EXPECT_EQ(image("printer", 14), fourteen.body());
    EXPECT_EQ(image("printer", 1), "");
}

TEST_F(WholeUpdate, DeviceWithThreeComponentsIsGivenTimeAfterItsReset) {
    set_bus({printer_with({{}, {.id = 1}, {.id = 2}})});
    add_firmware("main.dat", {});
    const RunResult result = update({"-4", "700"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.console,
                HasSubstr("Firmware update of Product ID 3c35 COMP: 0 finished, rc=0\n"
                          "Main component (0) of device 3c35 updated.\n"
                          "Sleeping for 700 milliseconds before using device again\n"
                          "Sleeping to allow reset device to respond\n"));
    EXPECT_GE(pause_after_reset(record(), "printer"), 4700);
}

TEST_F(WholeUpdate, DeviceWithTwoComponentsIsNotGivenExtraTime) {
    set_bus({printer_with({{}, {.id = 1}})});
    add_firmware("main.dat", {});
    const RunResult result = update({"-4", "700"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.console,
                HasSubstr("Firmware update of Product ID 3c35 COMP: 0 finished, rc=0\n"
                          "Sleeping to allow reset device to respond\n"));
    EXPECT_EQ(state().resets, 1);
}

TEST_F(WholeUpdate, SeveralDevicesAreUpdatedInOneRun) {
    SimDevice second = scanner();
    second.components = {{.level = "02.00"}};
    set_bus({SimDevice{}, second});
    const FirmwareFile for_printer = {}, for_scanner = {.product = 0x3C36, .level = "0201"};
    add_firmware("printer.dat", for_printer);
    add_firmware("scanner.dat", for_scanner);
    const RunResult result = update();
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.console, EndsWith("Updated 2 devices\n"));
    EXPECT_EQ(image("printer", 0), for_printer.body());
    EXPECT_EQ(image("scanner", 0), for_scanner.body());
}

TEST_F(WholeUpdate, SecondRunFindsNothingToDo) {
    set_bus({SimDevice{}});
    add_firmware("main.dat", {});
    EXPECT_EQ(update().exit_code, 0);
    const RunResult second = update();
    EXPECT_EQ(second.exit_code, 6);
    EXPECT_THAT(second.console,
                EndsWith("    File EC level smaller or equal, no update needed for PID: 3c35  "
                         "COMP: 0\nNo devices updated\n"));
    EXPECT_EQ(count_commands(commands("printer"), "04000100"), 0);
    EXPECT_EQ(state().updates, 1);
}

TEST_F(WholeUpdate, ListShowsTheNewLevels) {
    set_bus({printer_with({{}, {.id = 1}})});
    add_firmware("boot.dat", {.level = "0109", .component = 1});
    EXPECT_EQ(update().exit_code, 0);
    EXPECT_EQ(run({"-L"}).console, list_line(0x3C35, 0, "01.02", "PR0001") + "\n" +
                                       list_line(0x3C35, 1, "01.09", "PR0001") + "\n");
}

TEST_F(WholeUpdate, LargeImageArrivesByteForByte) {
    const FirmwareFile file = {.component = 1, .data_records = 300};
    set_bus({printer_with({{}, {.id = 1}})});
    add_firmware("boot.dat", file);
    EXPECT_EQ(update().exit_code, 0);
    EXPECT_EQ(image("printer", 1), file.body());
}

TEST_F(WholeUpdate, PlainListDeviceIsUpdated) {
    SimDevice device = printer_with({{}, {.id = 1}});
    device.interface_keys = "list = \"plain\"";
    set_bus({device});
    const FirmwareFile file = {.component = 1};
    add_firmware("boot.dat", file);
    EXPECT_EQ(update().exit_code, 0);
    EXPECT_EQ(image("printer", 1), file.body());
}

TEST_F(WholeUpdate, DeviceWithoutListsIsUpdated) {
    SimDevice device = printer_with({{}, {.id = 1, .type = "configuration"}});
    device.interface_keys = "list = \"none\"";
    set_bus({device});
    const FirmwareFile file = {.component = 1, .type = 2};
    add_firmware("boot.dat", file);
    EXPECT_EQ(update().exit_code, 0);
    EXPECT_EQ(image("printer", 1), file.body());
}

TEST_F(WholeUpdate, NamedFilesAloneAreUsed) {
    set_bus({printer_with({{}, {.id = 1}, {.id = 2}})});
    const FirmwareFile one = {.component = 1};
    add_firmware("one.dat", one);
    add_firmware("two.dat", {.component = 2});
    EXPECT_EQ(run({"-F", firmware_path("one.dat")}).exit_code, 0);
    EXPECT_EQ(image("printer", 1), one.body());
    EXPECT_EQ(image("printer", 2), "");
}

TEST_F(WholeUpdate, NamedFilesAreTakenFromThePath) {
    set_bus({printer_with({{}, {.id = 1}})});
    const FirmwareFile file = {.component = 1};
    add_firmware("boot.dat", file);
    EXPECT_EQ(run({"-F", "boot.dat", "-p", firmware_directory()}).exit_code, 0);
    EXPECT_EQ(image("printer", 1), file.body());
}

TEST_F(WholeUpdate, ConfigurationFileNamesTheFiles) {
    set_bus({printer_with({{}, {.id = 1}, {.id = 2}})});
    const FirmwareFile two = {.component = 2};
    add_firmware("one.dat", {.component = 1});
    add_firmware("two.dat", two);
    write_file(path("zelflash.cfg"), "# the font\n#one.dat\n\ntwo.dat\n");
    const RunResult result = run({"-C", path("zelflash.cfg"), "-p", firmware_directory()});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(image("printer", 2), two.body());
    EXPECT_EQ(image("printer", 1), "");
}

TEST_F(WholeUpdate, FirmwareOfTheWorkingDirectoryIsUsedWithoutAPath) {
    set_bus({printer_with({{}, {.id = 1}})});
    const FirmwareFile file = {.component = 1};
    add_firmware("boot.dat", file);
    settings.directory = firmware_directory();
    const RunResult result = run({"-U"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.console, HasSubstr("Firmware file found:  ./boot.dat\n"));
    EXPECT_EQ(image("printer", 1), file.body());
}

TEST_F(WholeUpdate, ResultFileTellsWhatHappenedToEachDevice) {
    SimDevice device = printer_with({{}, {.id = 1}});
    SimDevice second = scanner();
    second.components = {{}, {.id = 1, .level = "01.05"}};
    set_bus({device, second});
    add_firmware("boot.dat", {.component = 1});
    add_firmware("scanner.dat", {.product = 0x3C36, .component = 1});
    EXPECT_EQ(update({"-r", path("rma.txt")}).exit_code, 0);
    EXPECT_EQ(read_file(path("rma.txt")),
              "4 \nPID 3c35 EC level: 0001.02: Flash succeeded \n"
              "PID 3c36 EC level: 0001.02: Device EC version greather or equal than firmware file "
              "\n");
}

TEST_F(WholeUpdate, ResultFileOfASelectionNamesTheProductIdsAsTyped) {
    set_bus({printer_with({{}, {.id = 1}})});
    add_firmware("boot.dat", {.component = 1});
    EXPECT_EQ(update({"-r", path("rma.txt"), "-d", "3C35", "-d", "3c99"}).exit_code, 0);
    EXPECT_EQ(read_file(path("rma.txt")),
              "5 \nPID 3C35 EC level: 01.02: Flash succeeded \n"
              "PID 3c99 EC level: 00.00: Device is not attached to the system \n");
}
