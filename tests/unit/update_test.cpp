#include "firmware/firmware_search.h"
#include "journal/file_handle.h"
#include "journal/output.h"
#include "session/zelflash.h"
#include "settings.h"
#include "support/failing_new.h"
#include "support/firmware_bytes.h"
#include "support/flash_test.h"
#include "usb/zelflshhid.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr int product = 0x4123;

struct FileRow {
    int component = 0;
    int level = 0x0102;
    int build = 0;
    int method = 0;
    int type = 1;
};

/// The decision: files and rows without a device behind them.
class Update : public FlashTest {
  protected:
    Update() { check_for_update_only = 1; }

    FlashFile& add_file(const FileRow& wanted) {
        FlashFile& file = files[numberOfusbFlashFiles];
        const std::string name = "f" + std::to_string(numberOfusbFlashFiles++) + ".dat";
        directory.write(name, content_of(wanted));
        file.product_id = product;
        file.comp_id = wanted.component;
        file.ec_level = wanted.level;
        file.ec_version = (wanted.level >> 8) & 0x0F;
        file.comp_type = wanted.type;
        file.build_level = wanted.build;
        file.version_method = wanted.method;
        snprintf(file.filename, sizeof file.filename, "%s", name.c_str());
        snprintf(file.path, sizeof file.path, "%s", directory.path("").c_str());
        return file;
    }
    /// A file that is listed as `wanted`, with one record to be sent beside those about it.
    static FirmwareBytes content_of(const FileRow& wanted) {
        char header[9];
        snprintf(header, sizeof header, "%04x%04x", static_cast<unsigned int>(product),
                 static_cast<unsigned int>(wanted.level) & 0xFFFFU);
        FirmwareBytes content{header};
        if (wanted.component != 0) {
            content.record(0xFF, 0, {static_cast<std::uint8_t>(wanted.component)});
        }
        return content.record(0x10, 0, {1}).end();
    }
    std::string file_name(int row = 0) const {
        return directory.path("f" + std::to_string(row) + ".dat");
    }
    flashEntry& add_device(int level, int build = 0, int method = 0) {
        const int row = flash->numberOfFlashEntries++;
        flash->initialize_device_data(row, "//?/hid#vid_7a01&pid_0001#bus_09&dev_099", "SN-7",
                                      product, 0);
        flash->fe[row].component_count = 1;
        flash->fe[row].component[0] = {.comp_id = 0,
                                       .ec_level = level,
                                       .build_level = build,
                                       .comp_type = 1,
                                       .version_method = method};
        return flash->fe[row];
    }
    void add_component(flashEntry& row, int number, int level) {
        row.component[number] = {.comp_id = number,
                                 .ec_level = level,
                                 .build_level = 0,
                                 .comp_type = 2,
                                 .version_method = 0};
        ++row.component_count;
    }
    int pass(int component = 0) { return flash->start_flash(component, reset_needed); }

    TemporaryDirectory directory;
    int reset_needed = 0;
};

TEST_F(Update, TakesAHigherLevel) {
    add_file({.level = 0x0103});
    const flashEntry& row = add_device(0x0102);
    EXPECT_EQ(1, pass());
    EXPECT_EQ(FLASHSUCCESS, row.flashStatus);
    EXPECT_EQ(1, reset_needed);
    EXPECT_NE(std::string::npos,
              log.text().find(
                  "\nFirmware file found:  " + file_name() +
                  "\n"
                  "  File   - PID: 4123  COMP: 00  TYPE: FW   CONTROL: Increasing   EC: 01.03.00\n"
                  "  Device - PID: 4123  COMP: 00  TYPE: FW   CONTROL: Increasing   EC: 01.02.00 "
                  "(SN='SN-7')\n"
                  "    Starting firmware update of Product ID 4123 COMP: 0\n"
                  "    EC level when complete should be 01.03.00\n"
                  "Firmware update of Product ID 4123 COMP: 0 finished, rc=0\n"));
}

TEST_F(Update, SkipsALevelThatIsNotHigher) {
    add_file({.level = 0x0102});
    const flashEntry& equal = add_device(0x0102);
    const flashEntry& newer = add_device(0x0103);
    EXPECT_EQ(0, pass());
    EXPECT_EQ(ECMATCHES, equal.flashStatus);
    EXPECT_EQ(ECMATCHES, newer.flashStatus);
    EXPECT_EQ(2, logged("    File EC level smaller or equal, no update needed for PID: 4123  "
                        "COMP: 0"));
    EXPECT_EQ(0, reset_needed);
    EXPECT_EQ(0, log.count("Starting firmware update"));
}

TEST_F(Update, CountsTheBuildLevel) {
    add_file({.level = 0x0102, .build = 4});
    const flashEntry& row = add_device(0x0102, 3);
    EXPECT_EQ(1, pass());
    EXPECT_EQ(FLASHSUCCESS, row.flashStatus);
    EXPECT_EQ(1, logged("    EC level when complete should be 01.02.04"));
}

TEST_F(Update, TheLevelWeighsMoreThanTheBuild) {
    add_file({.level = 0x0103, .build = 0});
    add_device(0x0102, 255);
    add_device(0x0103, 255);
    EXPECT_EQ(1, pass());
    EXPECT_EQ(FLASHSUCCESS, flash->fe[0].flashStatus);
    EXPECT_EQ(ECMATCHES, flash->fe[1].flashStatus);
}

TEST_F(Update, TakesAnyOtherVersionUnderRandomControl) {
    add_file({.level = 0x0101, .method = 1});
    const flashEntry& row = add_device(0x0102);
    EXPECT_EQ(1, pass());
    EXPECT_EQ(FLASHSUCCESS, row.flashStatus);
    EXPECT_EQ(1, logged("    Random version control for Product ID: 4123 COMP: 0 (from: 01.02.00 "
                        "-> to: 01.01.00)"));
    EXPECT_EQ(1, log.count("CONTROL: Random       EC: 01.01.00\n"));
}

TEST_F(Update, TheDevicesRandomControlCountsToo) {
    add_file({.level = 0x0101});
    add_device(0x0102, 0, 1);
    EXPECT_EQ(1, pass());
}

TEST_F(Update, SkipsTheSameVersionUnderRandomControl) {
    add_file({.level = 0x0102, .build = 3, .method = 1});
    const flashEntry& row = add_device(0x0102, 3);
    EXPECT_EQ(0, pass());
    EXPECT_EQ(ECMATCHES, row.flashStatus);
    EXPECT_EQ(1, logged("    Random control with file and device EC levels equal, no update needed "
                        "for PID: 4123  COMP: 0"));
}

TEST_F(Update, IsForcedByTheOption) {
    force_update = 1;
    directory.write("f0.dat.force", std::string());
    for (const int method : {0, 1}) {
        numberOfusbFlashFiles = 0;
        flash->numberOfFlashEntries = 0;
        add_file({.level = 0x0102, .method = method});
        const flashEntry& row = add_device(0x0102);
        EXPECT_EQ(1, pass());
        EXPECT_EQ(FLASHFORCED, row.flashStatus);
    }
    EXPECT_EQ(2, logged("    Force update for Product ID: 4123 COMP: 0 (from: 01.02.00 -> to: "
                        "01.02.00)"));
    // No marker was looked for, so none is deleted.
    EXPECT_TRUE(std::filesystem::exists(directory.path("f0.dat.force")));
}

TEST_F(Update, IsForcedByAMarkerThatIsThenDeleted) {
    add_file({.level = 0x0101});
    directory.write("f0.dat.force", std::string());
    const flashEntry& row = add_device(0x0102);
    EXPECT_EQ(1, pass());
    EXPECT_EQ(FLASHFORCED, row.flashStatus);
    EXPECT_FALSE(std::filesystem::exists(directory.path("f0.dat.force")));
    EXPECT_EQ(1, log.count("    Force update for Product ID: 4123 COMP: 0 (from: 01.02.00 -> to: "
                           "01.01.00)\n"));
}

TEST_F(Update, LeavesAMarkerThatWasNotNeeded) {
    add_file({.level = 0x0103});
    directory.write("f0.dat.force", std::string());
    const flashEntry& row = add_device(0x0102);
    EXPECT_EQ(1, pass());
    EXPECT_EQ(FLASHSUCCESS, row.flashStatus);
    EXPECT_TRUE(std::filesystem::exists(directory.path("f0.dat.force")));
}

TEST_F(Update, FindsNoFileForTheComponent) {
    const flashEntry& row = add_device(0x0102);
    EXPECT_EQ(0, pass());
    EXPECT_EQ(NOFLASHFILE, row.flashStatus);
    add_file({.component = 1, .level = 0x0109});
    FlashFile& other = add_file({.level = 0x0109});
    other.product_id = product + 1;
    EXPECT_EQ(0, pass());
    EXPECT_EQ(NOFLASHFILE, row.flashStatus);
    numberOfusbFlashFiles = -1;
    files[0].comp_id = 0;
    EXPECT_EQ(0, pass());
    EXPECT_EQ(NOFLASHFILE, row.flashStatus);
}

TEST_F(Update, NamesAFileThatCantBeOpened) {
    add_file({.level = 0x0109});
    std::filesystem::remove(file_name());
    const flashEntry& row = add_device(0x0102);
    EXPECT_EQ(0, pass());
    EXPECT_EQ(NOFLASHFILE, row.flashStatus);
    EXPECT_EQ(1, logged("No flash file for PID: 4123 C COMP: 0"));
}

TEST_F(Update, LooksOneRowPastTheCount) {
    add_file({.level = 0x0109});
    numberOfusbFlashFiles = 0;
    add_device(0x0102);
    EXPECT_EQ(1, pass());
    add_file({.component = 7});
    add_file({.component = 7});
    FlashFile& far = add_file({.level = 0x0109});
    files[0].product_id = 0;
    numberOfusbFlashFiles = 1;
    EXPECT_EQ(0, pass());
    EXPECT_EQ(product, far.product_id);
}

TEST_F(Update, NeverLooksPastTheTable) {
    for (const int count : {255, 256, 100000}) {
        numberOfusbFlashFiles = 0;
        add_file({.level = 0x0109});
        std::swap(files[0], files[255]);
        numberOfusbFlashFiles = count;
        flash->numberOfFlashEntries = 0;
        add_device(0x0102);
        EXPECT_EQ(1, pass()) << count;
    }
    files[255] = {};
    comp_update_id = 5;
    EXPECT_EQ(0, pass());
    EXPECT_EQ(5, files[255].comp_id);
}

TEST_F(Update, TellsOfAVersionMismatchAndGoesOn) {
    add_file({.level = 0x0209});
    add_file({.level = 0x0109});
    add_device(0x0102);
    EXPECT_EQ(1, pass());
    EXPECT_EQ(1, logged("PID: 4123 COMP: 0 - Version mismatch (file=2, device=1)"));
    EXPECT_EQ(1, logged("Firmware file found:  " + file_name(1)));
}

TEST_F(Update, SkipsTheVersionCheckWhenAsked) {
    skip_version_check = 1;
    add_file({.level = 0x0209});
    add_device(0x0102);
    EXPECT_EQ(1, pass());
    EXPECT_EQ(0, log.count("Version mismatch"));
}

TEST_F(Update, ALettersVersionDigitIsItsCharacterMinusZero) {
    FlashFile& file = add_file({.level = 0x0B10});
    for (int letter = 0; letter < 6; ++letter) {
        flash->numberOfFlashEntries = 0;
        const flashEntry& row = add_device(0x0A10 + letter * 0x100);
        file.ec_level = 0x1F00;
        file.ec_version = 10 + letter;
        EXPECT_EQ(0, pass());
        EXPECT_EQ(NOFLASHFILE, row.flashStatus);
        file.ec_version = 49 + letter;
        EXPECT_EQ(1, pass()) << letter;
    }
    EXPECT_EQ(1, logged("PID: 4123 COMP: 0 - Version mismatch (file=a, device=31)"));
}

TEST_F(Update, RewritesTheFilesComponentsWhenAsked) {
    comp_update_id = 3;
    add_file({.component = 0, .level = 0x0109});
    flashEntry& row = add_device(0x0102);
    add_component(row, 3, 0x0102);
    EXPECT_EQ(0, pass(0));
    EXPECT_EQ(3, files[0].comp_id);
    EXPECT_EQ(1, pass(1));
}

TEST_F(Update, SkipsRowsThatAreNotSelectedOrGone) {
    add_file({.level = 0x0109});
    add_device(0x0102).flashStatus = NOFLASHALLOWED;
    add_device(0x0102).flashStatus = FLASHDEVICEGONE;
    add_device(0x0102).flashStatus = FLASHWRITEERROR;
    EXPECT_EQ(1, pass());
    EXPECT_EQ(NOFLASHALLOWED, flash->fe[0].flashStatus);
    EXPECT_EQ(FLASHDEVICEGONE, flash->fe[1].flashStatus);
    EXPECT_EQ(FLASHSUCCESS, flash->fe[2].flashStatus);
}

TEST_F(Update, EachPassVisitsItsComponents) {
    add_file({.component = 0, .level = 0x0109});
    add_file({.component = 1, .level = 0x0109});
    add_file({.component = 19, .level = 0x0109});
    flashEntry& row = add_device(0x0102);
    add_component(row, 1, 0x0102);
    add_component(row, 19, 0x0102);
    EXPECT_EQ(1, pass(0));
    reset_needed = 0;
    EXPECT_EQ(2, pass(1));
    EXPECT_EQ(0, reset_needed);
    EXPECT_EQ(1, pass(19));
    EXPECT_EQ(0, pass(20));
    EXPECT_EQ(0, pass(1000));
}

TEST_F(Update, NamesTypesAndControls) {
    const char* const types[] = {"UNS", "FW ", "CFG", "FON", "UNK", "UNK"};
    const int values[] = {0, 1, 2, 3, 4, -1};
    for (size_t i = 0; i < std::size(values); ++i) {
        numberOfusbFlashFiles = 0;
        add_file({.level = 0x0109, .method = 2, .type = values[i]});
        flash->numberOfFlashEntries = 0;
        flashEntry& row = add_device(0x0102, 0, -1);
        row.component[0].comp_type = values[i];
        EXPECT_EQ(1, pass());
        const std::string middle =
            std::string("PID: 4123  COMP: 00  TYPE: ") + types[i] + "  CONTROL:              EC: ";
        EXPECT_GE(logged("  File   - " + middle + "01.09.00"), 1) << values[i];
        EXPECT_GE(logged("  Device - " + middle + "01.02.00 (SN='SN-7')"), 1) << values[i];
    }
}

TEST_F(Update, ACheckSendsNothing) {
    FlashPeripheral& device = bus.add(product);
    add_file({.level = 0x0109});
    add_row(device, 0x0102);
    EXPECT_EQ(1, pass());
    EXPECT_EQ(1, reset_needed);
    EXPECT_TRUE(device.commands().empty());
    EXPECT_TRUE(usb.calls().empty());
    EXPECT_EQ(0, flash->CurrentIndex);
}

TEST_F(Update, TellsEachDecisionOnTheConsole) {
    add_file({.level = 0x0209});
    add_file({.level = 0x0102});
    flashEntry& row = add_device(0x0103, 0, 1);
    row.component_count = 3;
    const auto decide = [this] { pass(); };
    const std::string found =
        "PID: 4123 COMP: 0 - Version mismatch (file=2, device=1)\n"
        "\nFirmware file found:  " +
        file_name(1) +
        "\n"
        "  File   - PID: 4123  COMP: 00  TYPE: FW   CONTROL: Increasing   EC: 01.02.00\n";
    const std::string updated =
        "    Starting firmware update of Product ID 4123 COMP: 0\n"
        "    EC level when complete should be 01.02.00\n"
        "Firmware update of Product ID 4123 COMP: 0 finished, rc=0\n"
        "Main component (0) of device 4123 updated.\n"
        "Sleeping for 2000 milliseconds before using device again\n";
    EXPECT_EQ(found +
                  "  Device - PID: 4123  COMP: 00  TYPE: FW   CONTROL: Random       EC: 01.03.00 "
                  "(SN='SN-7')\n"
                  "    Random version control for Product ID: 4123 COMP: 0 (from: 01.03.00 -> to: "
                  "01.02.00)\n" +
                  updated,
              console_of(1, 0, decide));
    row.component[0].ec_level = 0x0102;
    const std::string equal = found +
                              "  Device - PID: 4123  COMP: 00  TYPE: FW   CONTROL: Random       "
                              "EC: 01.02.00 (SN='SN-7')\n";
    EXPECT_EQ(equal +
                  "    Random control with file and device EC levels equal, no update needed for "
                  "PID: 4123  COMP: 0\n",
              console_of(1, 0, decide));
    force_update = 1;
    EXPECT_EQ(equal +
                  "    Force update for Product ID: 4123 COMP: 0 (from: 01.02.00 -> to: "
                  "01.02.00)\n" +
                  updated,
              console_of(1, 0, decide));
    std::filesystem::remove(file_name(1));
    EXPECT_EQ(
        "PID: 4123 COMP: 0 - Version mismatch (file=2, device=1)\n"
        "No flash file for PID: 4123 C COMP: 0\n",
        console_of(1, 0, decide));
    EXPECT_EQ("", console_of(0, 0, decide));
}

TEST_F(Update, ManyComponentsNeedARestAfterTheMainOne) {
    add_file({.component = 0, .level = 0x0109});
    add_file({.component = 1, .level = 0x0109});
    reset_sleep_timeout = 2345;
    flashEntry& row = add_device(0x0102);
    add_component(row, 1, 0x0102);
    EXPECT_EQ(1, pass(0));
    EXPECT_TRUE(sleeps.slept().empty());
    row.component_count = 3;
    EXPECT_EQ(1, pass(0));
    EXPECT_EQ(std::vector<long>{2345}, sleeps.slept());
    EXPECT_EQ(1, logged("Main component (0) of device 4123 updated."));
    EXPECT_EQ(1, logged("Sleeping for 2345 milliseconds before using device again"));
    EXPECT_EQ(1, pass(1));
    EXPECT_EQ(1U, sleeps.slept().size());
}

/// Whole updates of scripted peripherals.
class Flashing : public Update {
  protected:
    Flashing() {
        check_for_update_only = 0;
        command_timeout = erase_timeout = checksum_timeout = 3000;
    }
    flashEntry& attach(FlashPeripheral& device, int level = 0x0102) {
        return add_row(device, level);
    }
    int flash_row(int row, int component = 0) {
        const FileHandle file(fopen(file_name().c_str(), "rb"));
        return flash->flash_device(file.get(), row, 0x0102, component, reset_needed,
                                   flash->CurrentIndex++);
    }
};

const Bytes record{0x07, 0x00, 0x02, 0x00, 0x01, 0x10, 0x00, 0x00, 0x01};
const Bytes checksum{0x05, 0x00, 0x02, 0x00, 0x00, 0xAB, 0xCD};

TEST_F(Flashing, ErasesSendsAndResetsTheMainComponent) {
    FlashPeripheral& device = bus.add(product);
    add_file({.level = 0x0109});
    flashEntry& row = attach(device);
    EXPECT_EQ(1, pass());
    EXPECT_EQ((std::vector<Bytes>{wire::erase, record, checksum, wire::reset, wire::stop}),
              device.commands());
    EXPECT_EQ(FLASHSUCCESS, row.flashStatus);
    EXPECT_EQ(1, row.resetDevice);
    EXPECT_EQ(1, reset_needed);
    EXPECT_EQ(1, flash->send_count);
    EXPECT_EQ(1, flash->CurrentIndex);
    EXPECT_EQ(0, global_reading_information);
    EXPECT_EQ(nullptr, flash->hiddev);
    EXPECT_EQ(1, logged("Erase completed, now sending 1 firmware update records from file"));
    EXPECT_EQ(1, logged("Reset needed after update completes"));
    EXPECT_EQ(1, logged("Reset to be done for PID 4123"));
    EXPECT_TRUE(threads.all_ended_within(10000));
    EXPECT_EQ(0, threads.unreclaimed());
}

TEST_F(Flashing, OtherComponentsAreNotReset) {
    FlashPeripheral& device = bus.add(product);
    add_file({.component = 1, .level = 0x0109});
    flashEntry& row = attach(device);
    add_component(row, 1, 0x0102);
    row.resetDevice = 1;
    reset_needed = 1;
    EXPECT_EQ(1, pass(1));
    EXPECT_EQ(0, device.count(wire::reset));
    EXPECT_EQ(0, row.resetDevice);
    EXPECT_EQ(0, log.count("Reset needed"));
}

TEST_F(Flashing, CommandsAreFinalWhileAnUpdateRuns) {
    FlashPeripheral& device = bus.add(product);
    add_file({.level = 0x0109});
    attach(device);
    int information_at_erase = -1;
    device.on_command = [&](const Bytes& command) {
        if (command == wire::erase) {
            information_at_erase = global_reading_information;
        }
    };
    EXPECT_EQ(1, pass());
    EXPECT_EQ(1, information_at_erase);
}

TEST_F(Flashing, ADeviceThatCantBeOpenedCountsAsUpdated) {
    add_file({.level = 0x0109});
    flashEntry& row = add_device(0x0102);
    EXPECT_EQ(1, pass());
    EXPECT_EQ(FLASHSUCCESS, row.flashStatus);
    EXPECT_EQ(0, reset_needed);
    EXPECT_EQ(1, log.count("Could not get open status for '"));
    EXPECT_EQ(1, debugged("0: close_device_after_use: closing handles"));
    EXPECT_EQ(1, logged("Firmware update of Product ID 4123 COMP: 0 finished, rc=0"));
}

TEST_F(Flashing, SoDoesADeviceWithBackgroundReadingOff) {
    FlashPeripheral& device = bus.add(product);
    background_read = 0;
    add_file({.level = 0x0109});
    attach(device);
    EXPECT_EQ(0, flash_row(0));
    EXPECT_EQ(0, device.count(wire::erase));
}

TEST_F(Flashing, ADeviceThatThereIsNoMemoryForIsGone) {
    FlashPeripheral& device = bus.add(product);
    add_file({.level = 0x0109});
    const flashEntry& row = attach(device);
    fail_nothrow_new(true);
    const int rc = flash_row(0);
    fail_nothrow_new(false);
    EXPECT_EQ(FLASHDEVICEGONE, rc);
    EXPECT_EQ(1, debugged("Could not open '" + std::string(row.DevicePath) + "'"));
    EXPECT_EQ(0, debugged("Getting components for 4123"));
    EXPECT_TRUE(device.commands().empty());
}

TEST_F(Flashing, AFailedEraseIsAWriteError) {
    FlashPeripheral& device = bus.add(product);
    device.answers[wire::erase] = {{0x40}};
    add_file({.level = 0x0109});
    flashEntry& row = attach(device);
    EXPECT_EQ(-2, pass());
    EXPECT_EQ(FLASHWRITEERROR, row.flashStatus);
    EXPECT_EQ(0, device.count(record));
    EXPECT_EQ(0, device.count(wire::reset));
    EXPECT_EQ(0, reset_needed);
    EXPECT_EQ(1, logged("Erase of flash image area failed, rc=2"));
    EXPECT_EQ(1, logged("Firmware update FAILED"));
    EXPECT_EQ(1, logged("Firmware update of Product ID 4123 COMP: 0 finished, rc=2"));
    EXPECT_EQ(1, logged("Update failed of Product ID 4123 COMP: 0 finished, rc=2, stopping "
                        "update"));
}

TEST_F(Flashing, AFailedTransferIsResetAllTheSame) {
    FlashPeripheral& device = bus.add(product);
    device.answers[record] = {{0x80}};
    add_file({.level = 0x0109});
    attach(device);
    EXPECT_EQ(-2, pass());
    EXPECT_EQ(1, device.count(wire::reset));
    EXPECT_EQ(1, flash->fe[0].resetDevice);
    EXPECT_EQ(1, reset_needed);
}

TEST_F(Flashing, AFailedEraseIsResetWhenThePassNeedsAReset) {
    FlashPeripheral& device = bus.add(product);
    device.answers[wire::erase] = {{0x40}};
    add_file({.level = 0x0109});
    attach(device);
    reset_needed = 1;
    EXPECT_EQ(2, flash_row(0));
    EXPECT_EQ(1, device.count(wire::reset));
    EXPECT_EQ(1, flash->fe[0].resetDevice);
}

TEST_F(Flashing, MapsTheCodesFromBelow) {
    FlashPeripheral& device = bus.add(product);
    add_file({.component = 1, .level = 0x0109});
    attach(device);
    device.next_write_results = {LIBUSB_ERROR_NO_DEVICE};
    EXPECT_EQ(FLASHDEVICEGONE, flash_row(0, 1));
    EXPECT_EQ(1, logged("Erase of flash image area failed, rc=13"));
    device.next_write_results = {LIBUSB_ERROR_PIPE};
    EXPECT_EQ(FLASHWRITEERROR, flash_row(0, 1));
    erase_timeout = 30;
    device.answers[wire::erase] = {};
    EXPECT_EQ(FLASHWRITEERROR, flash_row(0, 1));
    EXPECT_EQ(1, logged("Erase of flash image area failed, rc=7"));
    erase_timeout = 3000;
    device.answers.erase(wire::erase);
    directory.write("f0.dat", FirmwareBytes("41230102").record(0x10, 0, {1}));
    EXPECT_EQ(FILECORRUPTED, flash_row(0, 1));
    directory.write("f0.dat", FirmwareBytes("41230102").raw({0, 1}));
    EXPECT_EQ(FLASHWRITEERROR, flash_row(0, 1));
    EXPECT_EQ(5, logged("Firmware update FAILED"));
}

TEST_F(Flashing, AResetThatTheDeviceDropsOffAtIsASuccess) {
    FlashPeripheral& device = bus.add(product);
    add_file({.level = 0x0109});
    attach(device);
    device.on_command = [&](const Bytes& command) {
        if (command == checksum) {
            device.next_write_results = {0, LIBUSB_ERROR_PIPE};
        }
    };
    EXPECT_EQ(0, flash_row(0));
    EXPECT_EQ(1, logged("Reset sent, write failure expected!"));
    EXPECT_EQ(0, log.count("Reset failed for PID"));
}

TEST_F(Flashing, AFailedResetIsTheResultOfAGoodUpdate) {
    FlashPeripheral& device = bus.add(product);
    add_file({.level = 0x0109});
    attach(device);
    std::unique_ptr<HIDDEVICE2> taken;
    // A reset fails only without a device: take it away while the last answer is waited for.
    device.answers[checksum] = {};
    sleeps.after_sleep = [&](int) {
        if (device.count(checksum) == 1 && taken == nullptr) {
            taken = std::move(flash->hiddev);
            device.report({0x01});
        }
    };
    EXPECT_EQ(2, flash_row(0));
    EXPECT_EQ(0, device.count(wire::reset));
    EXPECT_EQ(1, flash->fe[0].resetDevice);
    EXPECT_EQ(FLASHWRITEERROR, flash->fe[0].flashStatus);
    EXPECT_EQ(1, logged("Reset failed for PID 4123, rc=2"));
    EXPECT_EQ(0, logged("Firmware update FAILED"));
    ASSERT_NE(nullptr, taken);
    taken->CloseWriteHandle();
    taken->CloseReadHandle();
    EXPECT_TRUE(threads.all_ended_within(10000));
}

TEST_F(Flashing, StopsTheReaderBeforeTheReset) {
    FlashPeripheral& device = bus.add(product);
    add_file({.level = 0x0109});
    attach(device);
    int stopped_at_reset = -1;
    device.on_command = [&](const Bytes& command) {
        if (command == wire::reset) {
            stopped_at_reset = flash->ThreadTable[0].stopped;
        }
    };
    EXPECT_EQ(0, flash_row(0));
    EXPECT_EQ(1, stopped_at_reset);
}

TEST_F(Flashing, StopsAtAFailureButVisitsTheRowsBehindIt) {
    FlashPeripheral& bad = bus.add(product);
    FlashPeripheral& good = bus.add(product);
    bad.answers[wire::erase] = {{0x40}};
    add_file({.component = 1, .level = 0x0109});
    add_file({.component = 2, .level = 0x0109});
    for (FlashPeripheral* const device : {&bad, &good}) {
        flashEntry& row = attach(*device);
        add_component(row, 1, 0x0102);
        add_component(row, 2, 0x0102);
    }
    // Minus the code, and the two successes count up from there.
    EXPECT_EQ(0, pass(1));
    EXPECT_EQ(1, bad.count(wire::erase));
    EXPECT_EQ(2, good.count(wire::erase));
    EXPECT_EQ(FLASHWRITEERROR, flash->fe[0].flashStatus);
    EXPECT_EQ(FLASHSUCCESS, flash->fe[1].flashStatus);
}

TEST_F(Flashing, AFailureReplacesEarlierSuccesses) {
    FlashPeripheral& good = bus.add(product);
    FlashPeripheral& bad = bus.add(product);
    bad.answers[wire::erase] = {{0x40}};
    add_file({.level = 0x0109});
    attach(good);
    attach(bad);
    EXPECT_EQ(-2, pass());
}

TEST_F(Flashing, GoesOnAfterAFailureWhenAsked) {
    FlashPeripheral& bad = bus.add(product);
    FlashPeripheral& good = bus.add(product);
    bad.answers[wire::erase] = {{0x40}};
    continue_on_failure = 1;
    add_file({.component = 1, .level = 0x0109});
    add_file({.component = 2, .level = 0x0109});
    for (FlashPeripheral* const device : {&bad, &good}) {
        flashEntry& row = attach(*device);
        add_component(row, 1, 0x0102);
        add_component(row, 2, 0x0102);
    }
    EXPECT_EQ(2, pass(1));
    EXPECT_EQ(2, bad.count(wire::erase));
    EXPECT_EQ(1, logged("Update failed of Product ID 4123 COMP: 1 finished, rc=2, continue to next "
                        "device"));
    EXPECT_EQ(1, logged("Update failed of Product ID 4123 COMP: 2 finished, rc=2, continue to next "
                        "device"));
}

TEST_F(Flashing, TellsWhenADeviceIsGone) {
    FlashPeripheral& device = bus.add(product);
    add_file({.level = 0x0109});
    flashEntry& row = attach(device);
    device.next_write_results = {LIBUSB_ERROR_NO_DEVICE};
    EXPECT_EQ(-5, pass());
    EXPECT_EQ(FLASHDEVICEGONE, row.flashStatus);
    EXPECT_EQ(1, logged("Device gone while firmware update of Product ID 4123 COMP: 0 finished, "
                        "stopping update"));
    row.flashStatus = NOFLASHATTEMPT;
    continue_on_failure = 1;
    device.next_write_results = {LIBUSB_ERROR_NO_DEVICE};
    EXPECT_EQ(0, pass());
    EXPECT_EQ(1, logged("Device gone while firmware update of Product ID 4123 COMP: 0 finished, "
                        "continue to next device"));
}

TEST_F(Flashing, TellsOfFailuresOnTheConsole) {
    FlashPeripheral& device = bus.add(product);
    device.answers[wire::erase] = {{0x40}};
    add_file({.level = 0x0109});
    attach(device);
    const auto update = [this] { pass(); };
    const std::string failed =
        "Erase of flash image area failed, rc=2\n"
        "Firmware update FAILED\n"
        "Firmware update of Product ID 4123 COMP: 0 finished, rc=2\n"
        "Update failed of Product ID 4123 COMP: 0 finished, rc=2, ";
    const std::string gone =
        "Erase of flash image area failed, rc=13\n"
        "Firmware update FAILED\n"
        "Firmware update of Product ID 4123 COMP: 0 finished, rc=5\n"
        "Device gone while firmware update of Product ID 4123 COMP: 0 finished, ";
    const auto told_behind_the_start = [&] {
        flash->fe[0].flashStatus = NOFLASHATTEMPT;
        const std::string shown = console_of(1, 0, update);
        const std::string start = "    EC level when complete should be 01.09.00\n";
        return shown.substr(shown.find(start) + start.size());
    };
    for (const bool goes_on : {false, true}) {
        continue_on_failure = goes_on ? 1 : 0;
        const std::string end = goes_on ? "continue to next device\n" : "stopping update\n";
        EXPECT_EQ(failed + end, told_behind_the_start());
        device.next_write_results = {LIBUSB_ERROR_NO_DEVICE};
        EXPECT_EQ(gone + end, told_behind_the_start());
    }
}

TEST_F(Flashing, ADeviceThatIsUnpluggedInTheMiddleFails) {
    FlashPeripheral& device = bus.add(product);
    add_file({.component = 1, .level = 0x0109});
    attach(device);
    device.on_command = [&](const Bytes& command) {
        if (command == record) {
            device.unplug();
        }
    };
    EXPECT_EQ(FLASHDEVICEGONE, flash_row(0, 1));
    EXPECT_EQ(nullptr, flash->hiddev);
    EXPECT_EQ(0, usb.live_handles);
}

TEST_F(Flashing, ADeviceThatIsClosedWhileItIsWaitedForIsGone) {
    FlashPeripheral& device = bus.add(product);
    add_file({.component = 1, .level = 0x0109});
    attach(device);
    device.answers[record] = {};
    sleeps.after_sleep = [&](int) {
        if (device.count(record) == 1) {
            flash->ThreadTable[0].device_closed = 1;
        }
    };
    EXPECT_EQ(FLASHDEVICEGONE, flash_row(0, 1));
    EXPECT_EQ(1, logged("Read failed on status of command, rc=13"));
    EXPECT_EQ(FLASHDEVICEGONE, flash->fe[0].flashStatus);
}

TEST_F(Flashing, AMarkerSurvivesAFailure) {
    FlashPeripheral& device = bus.add(product);
    device.answers[wire::erase] = {{0x40}};
    add_file({.level = 0x0101});
    directory.write("f0.dat.force", std::string());
    flashEntry& row = attach(device);
    EXPECT_EQ(-2, pass());
    EXPECT_EQ(FLASHWRITEERROR, row.flashStatus);
    EXPECT_TRUE(std::filesystem::exists(directory.path("f0.dat.force")));
}

TEST_F(Flashing, SaysOnTheConsoleWhatHappensToADevice) {
    FlashPeripheral& device = bus.add(product);
    add_file({.level = 0x0109});
    attach(device);
    const std::string shown = console_of(1, 0, [this] { pass(); });
    EXPECT_NE(std::string::npos, shown.find("    Starting firmware update of Product ID 4123"));
    EXPECT_NE(std::string::npos, shown.find(" %100 complete\n"));
    EXPECT_NE(std::string::npos, shown.find("Reset to be done for PID 4123\n"));
    EXPECT_EQ(std::string::npos, shown.find("Erase completed"));
    EXPECT_EQ(std::string::npos, shown.find("Reset needed"));
    EXPECT_EQ(std::string::npos, shown.find("Checksums written"));
}

/// Files that change between their listing and their update.
class ChangedFile : public Flashing {
  protected:
    ChangedFile() : row(attach(device)) { add_file({.level = 0x0109}); }

    void replace(const FirmwareBytes& content) { directory.write("f0.dat", content); }
    /// Nothing reached the device, and the file counts as one that is not there.
    void expect_not_sent(const std::string& reason) {
        row.flashStatus = NOFLASHATTEMPT;
        const int told = logged("No flash file for PID: 4123 C COMP: 0");
        EXPECT_EQ(0, pass());
        EXPECT_EQ(NOFLASHFILE, row.flashStatus);
        EXPECT_TRUE(device.commands().empty());
        EXPECT_EQ(0, log.count("Starting firmware update"));
        EXPECT_GE(logged("File '" + file_name() + "' is not sent: " + reason), 1) << reason;
        EXPECT_EQ(told + 1, logged("No flash file for PID: 4123 C COMP: 0"));
    }
    static constexpr char other_file[] = "it is not the file that was listed";

    FlashPeripheral& device = bus.add(product);
    flashEntry& row;
};

TEST_F(ChangedFile, OfAnotherProductIsNotSent) {
    replace(FirmwareBytes("41240109").record(0x10, 0, {1}).end());
    expect_not_sent(other_file);
}

TEST_F(ChangedFile, OfAnotherComponentIsNotSent) {
    replace(content_of({.component = 1, .level = 0x0109}));
    expect_not_sent(other_file);
}

TEST_F(ChangedFile, OfAnotherLevelBuildTypeOrControlIsNotSent) {
    replace(content_of({.level = 0x0108}));
    expect_not_sent(other_file);
    // The listed file has no list: build level 0, firmware, increasing.
    const std::vector<std::vector<std::uint8_t>> lists = {
        {0, 9, 1, 0x02, 7}, {0, 9, 1, 0x04, 0}, {0, 9, 1, 0x03, 0}};
    for (const auto& list : lists) {
        replace(FirmwareBytes("41230109").record(0xFF, 2, list).record(0x10, 0, {1}).end());
        expect_not_sent(other_file);
    }
}

TEST_F(ChangedFile, ThatIsEmptyIsNotSent) {
    replace(FirmwareBytes(""));
    expect_not_sent(other_file);
}

TEST_F(ChangedFile, OfEveryDeviceIsTakenAsItIsThen) {
    replace(FirmwareBytes("41230109").record(0x10, 0, {2}).end());
    EXPECT_EQ(1, pass());
    EXPECT_EQ(1, device.count({0x07, 0x00, 0x02, 0x00, 0x01, 0x10, 0x00, 0x00, 0x02}));
}

TEST_F(ChangedFile, IsSentAsItWasBeforeTheErase) {
    device.on_command = [&](const Bytes& command) {
        if (command == wire::erase) {
            std::filesystem::resize_file(file_name(), 9);
        }
    };
    EXPECT_EQ(1, pass());
    EXPECT_EQ(FLASHSUCCESS, row.flashStatus);
    EXPECT_EQ((std::vector<Bytes>{wire::erase, record, checksum, wire::reset, wire::stop}),
              device.commands());
}

TEST_F(ChangedFile, ThatIsHugeByNowIsNotSent) {
    std::filesystem::resize_file(file_name(), (64U << 20U) + 1);
    expect_not_sent("it is larger than 64 MiB");
}

TEST_F(ChangedFile, IsNotSentWithoutMemory) {
    fail_nothrow_new(true);
    expect_not_sent("there is no memory for a copy of it");
    fail_nothrow_new(false);
}

TEST_F(ChangedFile, KeepsItsMarker) {
    numberOfusbFlashFiles = 0;
    add_file({.level = 0x0101});
    directory.write("f0.dat.force", std::string());
    replace(content_of({.component = 1, .level = 0x0101}));
    expect_not_sent(other_file);
    EXPECT_TRUE(std::filesystem::exists(directory.path("f0.dat.force")));
}

TEST_F(ChangedFile, MayNameAnyComponentWhenOneIsNamedForAll) {
    comp_update_id = 3;
    add_component(row, 3, 0x0102);
    replace(content_of({.component = 5, .level = 0x0109}));
    EXPECT_EQ(1, pass(1));
    EXPECT_EQ(1, device.count(wire::erase));
}

TEST_F(ChangedFile, IsComparedByItsRecordsLevelWhenThatIsAskedFor) {
    use_information_record_ec_level = 1;
    replace(
        FirmwareBytes("41230101").record(0xFF, 2, {0, 9, 1, 0x02, 0}).record(0x10, 0, {1}).end());
    files[0].ec_version = 1;
    EXPECT_EQ(1, pass());
    EXPECT_EQ(1, device.count(wire::erase));
}

TEST_F(Flashing, SaysWhyNothingWasSentToADevice) {
    FlashPeripheral& device = bus.add(product);
    add_file({.level = 0x0109});
    add_device(0x0102);
    attach(device);
    const auto told = [&](int entry) {
        return console_of(1, 0, [&] { EXPECT_EQ(0, flash_row(entry)); });
    };
    const std::string start = "Nothing was sent to Product ID 4123 COMP: 0: ";
    EXPECT_EQ(start + "it can't be opened\n", told(0));
    threads.fail_with(EAGAIN);
    EXPECT_EQ(start +
                  "no thread can be started to read its answers: Resource temporarily "
                  "unavailable\n",
              told(1));
    threads.fail_with(0);
    background_read = 0;
    EXPECT_EQ(start + "background reading is switched off\n", told(1));
    EXPECT_EQ(0, device.count(wire::erase));
}

/// Images in which an answer is missed, or comes twice.
class Answers : public Flashing {
  protected:
    Answers() {
        FirmwareBytes content("41230109");
        for (std::uint8_t i = 0; i < 5; ++i) {
            content.record(0x10, i, {i});
        }
        add_file({.level = 0x0109});
        directory.write("f0.dat", content.end());
        attach(device);
    }
    static Bytes nth_record(unsigned char n) {
        return {0x07, 0x00, 0x02, 0x00, 0x01, 0x10, 0x00, n, n};
    }
    static constexpr char doubt[] = "The result is uncertain: ";

    FlashPeripheral& device = bus.add(product);
};

TEST_F(Answers, OneForEachMessageLeaveNoDoubt) {
    device.next_answers[wire::erase] = {{{0x80}}, {{0x01}}};
    EXPECT_EQ(1, pass());
    EXPECT_EQ(2, device.count(wire::erase));
    EXPECT_EQ(0, log.count(doubt));
}

TEST_F(Answers, OfABrokenEndpointAreCounted) {
    // Each failed read hands over the report before it: the refused checksum counts as taken.
    device.answers[nth_record(2)] = {};
    device.answers[nth_record(3)] = {};
    device.answers[nth_record(4)] = {};
    device.answers[checksum] = {{0x80}};
    device.on_command = [&](const Bytes& command) {
        if (command == nth_record(2)) {
            for (int i = 0; i < 200; ++i) {
                device.report_failure(LIBUSB_ERROR_PIPE);
            }
        }
    };
    EXPECT_EQ(1, pass());
    EXPECT_EQ(1, log.count(doubt));
    EXPECT_NE(std::string::npos, log.text().find(" status reports could not be read\n"));
    const std::string text = log.text();
    EXPECT_LT(text.find(doubt), text.find("COMP: 0 finished, rc=0"));
}

TEST_F(Answers, ThatComeTwiceAreCounted) {
    device.answers[nth_record(3)] = {{0x01}, {0x01}};
    EXPECT_EQ(1, pass());
    EXPECT_EQ(1, logged(std::string(doubt) + "1 status report more than messages sent"));
}

TEST_F(Answers, OfAnImageThatFailedNeedNoDoubt) {
    device.answers[nth_record(3)] = {{0x80}, {0x80}};
    EXPECT_EQ(-2, pass());
    EXPECT_EQ(0, log.count(doubt));
}

TEST_F(Answers, OfTheImageBeforeDoNotCount) {
    device.answers[nth_record(3)] = {{0x01}, {0x01}};
    EXPECT_EQ(0, flash_row(0));
    device.answers.clear();
    EXPECT_EQ(0, flash_row(0));
    EXPECT_EQ(1, log.count(doubt));
}

/// Images for a device whose output report is short.
class ShortReport : public Flashing {
  protected:
    void set_report(int size, bool with_ids = false) {
        make_flash_device(device.usb(), with_ids, size, 32);
        add_file({.component = 1, .level = 0x0109});
        attach(device);
    }
    std::string told() {
        return console_of(1, 0, [&] { flash_row(0, 1); });
    }
    void write(const std::vector<std::size_t>& lengths) {
        FirmwareBytes content("41230109");
        for (const std::size_t length : lengths) {
            content.record(0x10, 0, std::vector<std::uint8_t>(length, 7));
        }
        directory.write("f0.dat", content.end());
    }

    FlashPeripheral& device = bus.add(product);
};

TEST_F(ShortReport, CutsLongRecords) {
    set_report(40);
    write({1, 32, 33, 255, 32, 34});
    EXPECT_EQ(0U,
              told().find("Messages are cut short: record 3 needs 41 bytes, the device's report "
                          "holds 40 (records cut short: 3)\n"));
}

TEST_F(ShortReport, HoldsItsSizeBesideTheReportId) {
    erase_timeout = 30;
    set_report(40, true);
    write({32});
    EXPECT_EQ(std::string::npos, told().find("cut short"));
    write({33});
    EXPECT_NE(std::string::npos, told().find("record 1 needs 41 bytes"));
}

TEST_F(ShortReport, DoesNotMatterToARecordThatIsNotSent) {
    set_report(40);
    directory.write("f0.dat", FirmwareBytes("41230109").lying_record(60, 0x10, 0, Bytes(50, 7)));
    EXPECT_EQ(std::string::npos, told().find("cut short"));
}

TEST_F(ShortReport, ThatIsMissingTakesNothing) {
    set_report(40);
    device.usb().report_descriptor.clear();
    EXPECT_EQ(0U,
              told().find(
                  "The report for messages to the device is not known: without it nothing is sent\n"
                  "Erase of flash image area failed, rc=8\n"));
}

}  // namespace
