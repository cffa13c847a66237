#include "firmware/firmware_search.h"
#include "journal/file_handle.h"
#include "journal/output.h"
#include "session/zelflash.h"
#include "settings.h"
#include "support/failing_new.h"
#include "support/firmware_bytes.h"
#include "support/flash_test.h"
#include "support/temporary_directory.h"
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
        file.product_id = flash_product;
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
        snprintf(header, sizeof header, "%04x%04x", static_cast<unsigned int>(flash_product),
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
                                      flash_product, 0);
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

}  // namespace

TEST_F(Update, TakesAHigherLevel) {
    add_file({.level = 0x0103});
    const flashEntry& row = add_device(0x0102);
    EXPECT_EQ(pass(), 1);
    EXPECT_EQ(row.flashStatus, FLASHSUCCESS);
    EXPECT_EQ(reset_needed, 1);
    EXPECT_NE(log.text().find(
                  "\nFirmware file found:  " + file_name() +
                  "\n"
                  "  File   - PID: 4123  COMP: 00  TYPE: FW   CONTROL: Increasing   EC: 01.03.00\n"
                  "  Device - PID: 4123  COMP: 00  TYPE: FW   CONTROL: Increasing   EC: 01.02.00 "
                  "(SN='SN-7')\n"
                  "    Starting firmware update of Product ID 4123 COMP: 0\n"
                  "    EC level when complete should be 01.03.00\n"
                  "Firmware update of Product ID 4123 COMP: 0 finished, rc=0\n"),
              std::string::npos);
}

namespace {

/// What a file or a component is, as far as the decision looks at it.
struct Version {
    int level;
    int build = 0;
    bool is_random = false;
};

struct DecisionCase {
    const char* name;
    Version file;
    Version device;
    bool is_forced;
    int status;
    const char* told;  ///< the line of the log
};

class Decision : public Update, public testing::WithParamInterface<DecisionCase> {};

constexpr char not_higher[] =
    "    File EC level smaller or equal, no update needed for PID: 4123  COMP: 0";
constexpr char random_and_equal[] =
    "    Random control with file and device EC levels equal, no update needed for PID: 4123  "
    "COMP: 0";
constexpr char at_random[] =
    "    Random version control for Product ID: 4123 COMP: 0 (from: 01.02.00 -> to: 01.01.00)";
constexpr char forced_equal[] =
    "    Force update for Product ID: 4123 COMP: 0 (from: 01.02.00 -> to: 01.02.00)";

constexpr DecisionCase decisions[] = {
    {"HigherLevel",
     {0x0103},
     {0x0102},
     false,
     FLASHSUCCESS,
     "    EC level when complete should be 01.03.00"},
    {"EqualLevel", {0x0102}, {0x0102}, false, ECMATCHES, not_higher},
    {"LowerLevel", {0x0102}, {0x0103}, false, ECMATCHES, not_higher},
    {"HigherBuild",
     {0x0102, 4},
     {0x0102, 3},
     false,
     FLASHSUCCESS,
     "    EC level when complete should be 01.02.04"},
    {"LowerBuild", {0x0102, 3}, {0x0102, 4}, false, ECMATCHES, not_higher},
    {"HigherLevelOfALowerBuild",
     {0x0103, 0},
     {0x0102, 255},
     false,
     FLASHSUCCESS,
     "    EC level when complete should be 01.03.00"},
    {"LowerLevelOfAHigherBuild", {0x0102, 9}, {0x0103, 0}, false, ECMATCHES, not_higher},
    {"RandomFile", {0x0101, 0, true}, {0x0102}, false, FLASHSUCCESS, at_random},
    {"RandomDevice", {0x0101}, {0x0102, 0, true}, false, FLASHSUCCESS, at_random},
    {"RandomFileAndDevice", {0x0101, 0, true}, {0x0102, 0, true}, false, FLASHSUCCESS, at_random},
    {"RandomFileOfTheSameVersion",
     {0x0102, 3, true},
     {0x0102, 3},
     false,
     ECMATCHES,
     random_and_equal},
    {"RandomBothOfTheSameVersion",
     {0x0102, 3, true},
     {0x0102, 3, true},
     false,
     ECMATCHES,
     random_and_equal},
    {"ForcedEqualLevel", {0x0102}, {0x0102}, true, FLASHFORCED, forced_equal},
    {"ForcedLowerLevel",
     {0x0101},
     {0x0102},
     true,
     FLASHFORCED,
     "    Force update for Product ID: 4123 COMP: 0 (from: 01.02.00 -> to: 01.01.00)"},
    {"ForcedRandomOfTheSameVersion",
     {0x0102, 0, true},
     {0x0102, 0, true},
     true,
     FLASHFORCED,
     forced_equal},
    {"OtherVersionDigit",
     {0x0205},
     {0x0102},
     false,
     NOFLASHFILE,
     "PID: 4123 COMP: 0 - Version mismatch (file=2, device=1)"},
    {"ForcedOtherVersionDigit",
     {0x0205},
     {0x0102},
     true,
     NOFLASHFILE,
     "PID: 4123 COMP: 0 - Version mismatch (file=2, device=1)"},
};

}  // namespace

TEST_P(Decision, ComparesLevelBuildAndControl) {
    const DecisionCase& wanted = GetParam();
    force_update = wanted.is_forced ? 1 : 0;
    add_file({.level = wanted.file.level,
              .build = wanted.file.build,
              .method = wanted.file.is_random ? 1 : 0});
    const flashEntry& row =
        add_device(wanted.device.level, wanted.device.build, wanted.device.is_random ? 1 : 0);
    const bool is_taken = wanted.status == FLASHSUCCESS || wanted.status == FLASHFORCED;
    EXPECT_EQ(pass(), is_taken ? 1 : 0);
    EXPECT_EQ(row.flashStatus, wanted.status);
    EXPECT_EQ(reset_needed, is_taken ? 1 : 0);
    EXPECT_EQ(logged(wanted.told), 1);
    EXPECT_EQ(log.count("Starting firmware update"), is_taken ? 1 : 0);
    EXPECT_EQ(log.count("  File   - PID: 4123  COMP: 00  TYPE: FW   CONTROL: Random       EC: "),
              wanted.file.is_random ? 1 : 0);
}

INSTANTIATE_TEST_SUITE_P(Each, Decision, testing::ValuesIn(decisions),
                         [](const auto& given) { return given.param.name; });

TEST_F(Update, IsForcedByTheOption) {
    force_update = 1;
    directory.write("f0.dat.force", std::string());
    for (const int method : {0, 1}) {
        numberOfusbFlashFiles = 0;
        flash->numberOfFlashEntries = 0;
        add_file({.level = 0x0102, .method = method});
        const flashEntry& row = add_device(0x0102);
        EXPECT_EQ(pass(), 1);
        EXPECT_EQ(row.flashStatus, FLASHFORCED);
    }
    EXPECT_EQ(logged("    Force update for Product ID: 4123 COMP: 0 (from: 01.02.00 -> to: "
                     "01.02.00)"),
              2);
    // No marker was looked for, so none is deleted.
    EXPECT_TRUE(std::filesystem::exists(directory.path("f0.dat.force")));
}

TEST_F(Update, IsForcedByAMarkerThatIsThenDeleted) {
    add_file({.level = 0x0101});
    directory.write("f0.dat.force", std::string());
    const flashEntry& row = add_device(0x0102);
    EXPECT_EQ(pass(), 1);
    EXPECT_EQ(row.flashStatus, FLASHFORCED);
    EXPECT_FALSE(std::filesystem::exists(directory.path("f0.dat.force")));
    EXPECT_EQ(log.count("    Force update for Product ID: 4123 COMP: 0 (from: 01.02.00 -> to: "
                        "01.01.00)\n"),
              1);
}

TEST_F(Update, LeavesAMarkerThatWasNotNeeded) {
    add_file({.level = 0x0103});
    directory.write("f0.dat.force", std::string());
    const flashEntry& row = add_device(0x0102);
    EXPECT_EQ(pass(), 1);
    EXPECT_EQ(row.flashStatus, FLASHSUCCESS);
    EXPECT_TRUE(std::filesystem::exists(directory.path("f0.dat.force")));
}

TEST_F(Update, AnotherFilesMarkerIsOfNoUse) {
    add_file({.level = 0x0102});
    directory.write("f1.dat.force", "");
    const flashEntry& row = add_device(0x0102);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(row.flashStatus, ECMATCHES);
    EXPECT_TRUE(std::filesystem::exists(directory.path("f1.dat.force")));
}

TEST_F(Update, FindsNoFileForTheComponent) {
    const flashEntry& row = add_device(0x0102);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(row.flashStatus, NOFLASHFILE);
    add_file({.component = 1, .level = 0x0109});
    FlashFile& other = add_file({.level = 0x0109});
    other.product_id = flash_product + 1;
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(row.flashStatus, NOFLASHFILE);
    numberOfusbFlashFiles = -1;
    files[0].comp_id = 0;
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(row.flashStatus, NOFLASHFILE);
}

TEST_F(Update, NamesAFileThatCantBeOpened) {
    add_file({.level = 0x0109});
    std::filesystem::remove(file_name());
    const flashEntry& row = add_device(0x0102);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(row.flashStatus, NOFLASHFILE);
    EXPECT_EQ(logged("No flash file for PID: 4123 C COMP: 0"), 1);
}

TEST_F(Update, LooksOneRowPastTheCount) {
    add_file({.level = 0x0109});
    numberOfusbFlashFiles = 0;
    add_device(0x0102);
    EXPECT_EQ(pass(), 1);
    add_file({.component = 7});
    add_file({.component = 7});
    FlashFile& far = add_file({.level = 0x0109});
    files[0].product_id = 0;
    numberOfusbFlashFiles = 1;
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(far.product_id, flash_product);
}

TEST_F(Update, NeverLooksPastTheTable) {
    for (const int count : {255, 256, 100000}) {
        numberOfusbFlashFiles = 0;
        add_file({.level = 0x0109});
        std::swap(files[0], files[255]);
        numberOfusbFlashFiles = count;
        flash->numberOfFlashEntries = 0;
        add_device(0x0102);
        EXPECT_EQ(pass(), 1) << count;
    }
    files[255] = {};
    comp_update_id = 5;
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(files[255].comp_id, 5);
}

TEST_F(Update, TellsOfAVersionMismatchAndGoesOn) {
    add_file({.level = 0x0209});
    add_file({.level = 0x0109});
    add_device(0x0102);
    EXPECT_EQ(pass(), 1);
    EXPECT_EQ(logged("PID: 4123 COMP: 0 - Version mismatch (file=2, device=1)"), 1);
    EXPECT_EQ(logged("Firmware file found:  " + file_name(1)), 1);
}

TEST_F(Update, SkipsTheVersionCheckWhenAsked) {
    skip_version_check = 1;
    add_file({.level = 0x0209});
    add_device(0x0102);
    EXPECT_EQ(pass(), 1);
    EXPECT_EQ(log.count("Version mismatch"), 0);
}

TEST_F(Update, ALettersVersionDigitIsItsCharacterMinusZero) {
    FlashFile& file = add_file({.level = 0x0B10});
    for (int letter = 0; letter < 6; ++letter) {
        flash->numberOfFlashEntries = 0;
        const flashEntry& row = add_device(0x0A10 + letter * 0x100);
        file.ec_level = 0x1F00;
        file.ec_version = 10 + letter;
        EXPECT_EQ(pass(), 0);
        EXPECT_EQ(row.flashStatus, NOFLASHFILE);
        file.ec_version = 49 + letter;
        EXPECT_EQ(pass(), 1) << letter;
    }
    EXPECT_EQ(logged("PID: 4123 COMP: 0 - Version mismatch (file=a, device=31)"), 1);
}

TEST_F(Update, RewritesTheFilesComponentsWhenAsked) {
    comp_update_id = 3;
    add_file({.component = 0, .level = 0x0109});
    flashEntry& row = add_device(0x0102);
    add_component(row, 3, 0x0102);
    EXPECT_EQ(pass(0), 0);
    EXPECT_EQ(files[0].comp_id, 3);
    EXPECT_EQ(pass(1), 1);
}

TEST_F(Update, SkipsRowsThatAreNotSelectedOrGone) {
    add_file({.level = 0x0109});
    add_device(0x0102).flashStatus = NOFLASHALLOWED;
    add_device(0x0102).flashStatus = FLASHDEVICEGONE;
    add_device(0x0102).flashStatus = FLASHWRITEERROR;
    EXPECT_EQ(pass(), 1);
    EXPECT_EQ(flash->fe[0].flashStatus, NOFLASHALLOWED);
    EXPECT_EQ(flash->fe[1].flashStatus, FLASHDEVICEGONE);
    EXPECT_EQ(flash->fe[2].flashStatus, FLASHSUCCESS);
}

TEST_F(Update, EachPassVisitsItsComponents) {
    add_file({.component = 0, .level = 0x0109});
    add_file({.component = 1, .level = 0x0109});
    add_file({.component = 19, .level = 0x0109});
    flashEntry& row = add_device(0x0102);
    add_component(row, 1, 0x0102);
    add_component(row, 19, 0x0102);
    EXPECT_EQ(pass(0), 1);
    reset_needed = 0;
    EXPECT_EQ(pass(1), 2);
    EXPECT_EQ(reset_needed, 0);
    EXPECT_EQ(pass(19), 1);
    EXPECT_EQ(pass(20), 0);
    EXPECT_EQ(pass(1000), 0);
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
        EXPECT_EQ(pass(), 1);
        const std::string middle =
            std::string("PID: 4123  COMP: 00  TYPE: ") + types[i] + "  CONTROL:              EC: ";
        EXPECT_GE(logged("  File   - " + middle + "01.09.00"), 1) << values[i];
        EXPECT_GE(logged("  Device - " + middle + "01.02.00 (SN='SN-7')"), 1) << values[i];
    }
}

TEST_F(Update, ACheckSendsNothing) {
    FlashPeripheral& device = bus.add(flash_product);
    add_file({.level = 0x0109});
    add_row(device, 0x0102);
    EXPECT_EQ(pass(), 1);
    EXPECT_EQ(reset_needed, 1);
    EXPECT_TRUE(device.commands().empty());
    EXPECT_TRUE(usb.calls().empty());
    EXPECT_EQ(flash->CurrentIndex, 0);
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
    EXPECT_EQ(console_of(1, 0, decide),
              found +
                  "  Device - PID: 4123  COMP: 00  TYPE: FW   CONTROL: Random       EC: 01.03.00 "
                  "(SN='SN-7')\n"
                  "    Random version control for Product ID: 4123 COMP: 0 (from: 01.03.00 -> to: "
                  "01.02.00)\n" +
                  updated);
    row.component[0].ec_level = 0x0102;
    const std::string equal = found +
                              "  Device - PID: 4123  COMP: 00  TYPE: FW   CONTROL: Random       "
                              "EC: 01.02.00 (SN='SN-7')\n";
    EXPECT_EQ(console_of(1, 0, decide),
              equal +
                  "    Random control with file and device EC levels equal, no update needed for "
                  "PID: 4123  COMP: 0\n");
    force_update = 1;
    EXPECT_EQ(console_of(1, 0, decide),
              equal +
                  "    Force update for Product ID: 4123 COMP: 0 (from: 01.02.00 -> to: "
                  "01.02.00)\n" +
                  updated);
    std::filesystem::remove(file_name(1));
    EXPECT_EQ(console_of(1, 0, decide),
              "PID: 4123 COMP: 0 - Version mismatch (file=2, device=1)\n"
              "No flash file for PID: 4123 C COMP: 0\n");
    EXPECT_EQ(console_of(0, 0, decide), "");
}

TEST_F(Update, ManyComponentsNeedARestAfterTheMainOne) {
    add_file({.component = 0, .level = 0x0109});
    add_file({.component = 1, .level = 0x0109});
    reset_sleep_timeout = 2345;
    flashEntry& row = add_device(0x0102);
    add_component(row, 1, 0x0102);
    EXPECT_EQ(pass(0), 1);
    EXPECT_TRUE(sleeps.slept().empty());
    row.component_count = 3;
    EXPECT_EQ(pass(0), 1);
    EXPECT_EQ(sleeps.slept(), std::vector<long>{2345});
    EXPECT_EQ(logged("Main component (0) of device 4123 updated."), 1);
    EXPECT_EQ(logged("Sleeping for 2345 milliseconds before using device again"), 1);
    EXPECT_EQ(pass(1), 1);
    EXPECT_EQ(sleeps.slept().size(), 1U);
}

namespace {

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

}  // namespace

TEST_F(Flashing, ErasesSendsAndResetsTheMainComponent) {
    FlashPeripheral& device = bus.add(flash_product);
    add_file({.level = 0x0109});
    flashEntry& row = attach(device);
    EXPECT_EQ(pass(), 1);
    EXPECT_EQ(device.commands(),
              (std::vector<Bytes>{wire::erase, record, checksum, wire::reset, wire::stop}));
    EXPECT_EQ(row.flashStatus, FLASHSUCCESS);
    EXPECT_EQ(row.resetDevice, 1);
    EXPECT_EQ(reset_needed, 1);
    EXPECT_EQ(flash->send_count, 1);
    EXPECT_EQ(flash->CurrentIndex, 1);
    EXPECT_EQ(global_reading_information, 0);
    EXPECT_EQ(flash->hiddev, nullptr);
    EXPECT_EQ(logged("Erase completed, now sending 1 firmware update records from file"), 1);
    EXPECT_EQ(logged("Reset needed after update completes"), 1);
    EXPECT_EQ(logged("Reset to be done for PID 4123"), 1);
    EXPECT_TRUE(threads.all_ended_within(10000));
    EXPECT_EQ(threads.unreclaimed(), 0);
}

TEST_F(Flashing, OtherComponentsAreNotReset) {
    FlashPeripheral& device = bus.add(flash_product);
    add_file({.component = 1, .level = 0x0109});
    flashEntry& row = attach(device);
    add_component(row, 1, 0x0102);
    row.resetDevice = 1;
    reset_needed = 1;
    EXPECT_EQ(pass(1), 1);
    EXPECT_EQ(device.count(wire::reset), 0);
    EXPECT_EQ(row.resetDevice, 0);
    EXPECT_EQ(log.count("Reset needed"), 0);
}

TEST_F(Flashing, CommandsAreFinalWhileAnUpdateRuns) {
    FlashPeripheral& device = bus.add(flash_product);
    add_file({.level = 0x0109});
    attach(device);
    int information_at_erase = -1;
    device.on_command = [&](const Bytes& command) {
        if (command == wire::erase) {
            information_at_erase = global_reading_information;
        }
    };
    EXPECT_EQ(pass(), 1);
    EXPECT_EQ(information_at_erase, 1);
}

TEST_F(Flashing, ADeviceThatCantBeOpenedCountsAsUpdated) {
    add_file({.level = 0x0109});
    flashEntry& row = add_device(0x0102);
    EXPECT_EQ(pass(), 1);
    EXPECT_EQ(row.flashStatus, FLASHSUCCESS);
    EXPECT_EQ(reset_needed, 0);
    EXPECT_EQ(log.count("Could not get open status for '"), 1);
    EXPECT_EQ(debugged("0: close_device_after_use: closing handles"), 1);
    EXPECT_EQ(logged("Firmware update of Product ID 4123 COMP: 0 finished, rc=0"), 1);
}

TEST_F(Flashing, SoDoesADeviceWithBackgroundReadingOff) {
    FlashPeripheral& device = bus.add(flash_product);
    background_read = 0;
    add_file({.level = 0x0109});
    attach(device);
    EXPECT_EQ(flash_row(0), 0);
    EXPECT_EQ(device.count(wire::erase), 0);
}

TEST_F(Flashing, ADeviceThatThereIsNoMemoryForIsGone) {
    FlashPeripheral& device = bus.add(flash_product);
    add_file({.level = 0x0109});
    const flashEntry& row = attach(device);
    fail_nothrow_new(true);
    const int rc = flash_row(0);
    fail_nothrow_new(false);
    EXPECT_EQ(rc, FLASHDEVICEGONE);
    EXPECT_EQ(debugged("Could not open '" + std::string(row.DevicePath) + "'"), 1);
    EXPECT_EQ(debugged("Getting components for 4123"), 0);
    EXPECT_TRUE(device.commands().empty());
}

TEST_F(Flashing, AFailedEraseIsAWriteError) {
    FlashPeripheral& device = bus.add(flash_product);
    device.answers[wire::erase] = {{0x40}};
    add_file({.level = 0x0109});
    flashEntry& row = attach(device);
    EXPECT_EQ(pass(), -2);
    EXPECT_EQ(row.flashStatus, FLASHWRITEERROR);
    EXPECT_EQ(device.count(record), 0);
    EXPECT_EQ(device.count(wire::reset), 0);
    EXPECT_EQ(reset_needed, 0);
    EXPECT_EQ(logged("Erase of flash image area failed, rc=2"), 1);
    EXPECT_EQ(logged("Firmware update FAILED"), 1);
    EXPECT_EQ(logged("Firmware update of Product ID 4123 COMP: 0 finished, rc=2"), 1);
    EXPECT_EQ(logged("Update failed of Product ID 4123 COMP: 0 finished, rc=2, stopping "
                     "update"),
              1);
}

TEST_F(Flashing, AFailedTransferIsResetAllTheSame) {
    FlashPeripheral& device = bus.add(flash_product);
    device.answers[record] = {{0x80}};
    add_file({.level = 0x0109});
    attach(device);
    EXPECT_EQ(pass(), -2);
    EXPECT_EQ(device.count(wire::reset), 1);
    EXPECT_EQ(flash->fe[0].resetDevice, 1);
    EXPECT_EQ(reset_needed, 1);
}

TEST_F(Flashing, AFailedEraseIsResetWhenThePassNeedsAReset) {
    FlashPeripheral& device = bus.add(flash_product);
    device.answers[wire::erase] = {{0x40}};
    add_file({.level = 0x0109});
    attach(device);
    reset_needed = 1;
    EXPECT_EQ(flash_row(0), 2);
    EXPECT_EQ(device.count(wire::reset), 1);
    EXPECT_EQ(flash->fe[0].resetDevice, 1);
}

TEST_F(Flashing, MapsTheCodesFromBelow) {
    FlashPeripheral& device = bus.add(flash_product);
    add_file({.component = 1, .level = 0x0109});
    attach(device);
    device.next_write_results = {LIBUSB_ERROR_NO_DEVICE};
    EXPECT_EQ(flash_row(0, 1), FLASHDEVICEGONE);
    EXPECT_EQ(logged("Erase of flash image area failed, rc=13"), 1);
    device.next_write_results = {LIBUSB_ERROR_PIPE};
    EXPECT_EQ(flash_row(0, 1), FLASHWRITEERROR);
    erase_timeout = 30;
    device.answers[wire::erase] = {};
    EXPECT_EQ(flash_row(0, 1), FLASHWRITEERROR);
    EXPECT_EQ(logged("Erase of flash image area failed, rc=7"), 1);
    erase_timeout = 3000;
    device.answers.erase(wire::erase);
    directory.write("f0.dat", FirmwareBytes("41230102").record(0x10, 0, {1}));
    EXPECT_EQ(flash_row(0, 1), FILECORRUPTED);
    directory.write("f0.dat", FirmwareBytes("41230102").raw({0, 1}));
    EXPECT_EQ(flash_row(0, 1), FLASHWRITEERROR);
    EXPECT_EQ(logged("Firmware update FAILED"), 5);
}

TEST_F(Flashing, AResetThatTheDeviceDropsOffAtIsASuccess) {
    FlashPeripheral& device = bus.add(flash_product);
    add_file({.level = 0x0109});
    attach(device);
    device.on_command = [&](const Bytes& command) {
        if (command == checksum) {
            device.next_write_results = {0, LIBUSB_ERROR_PIPE};
        }
    };
    EXPECT_EQ(flash_row(0), 0);
    EXPECT_EQ(logged("Reset sent, write failure expected!"), 1);
    EXPECT_EQ(log.count("Reset failed for PID"), 0);
}

TEST_F(Flashing, AFailedResetIsTheResultOfAGoodUpdate) {
    FlashPeripheral& device = bus.add(flash_product);
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
    EXPECT_EQ(flash_row(0), 2);
    EXPECT_EQ(device.count(wire::reset), 0);
    EXPECT_EQ(flash->fe[0].resetDevice, 1);
    EXPECT_EQ(flash->fe[0].flashStatus, FLASHWRITEERROR);
    EXPECT_EQ(logged("Reset failed for PID 4123, rc=2"), 1);
    EXPECT_EQ(logged("Firmware update FAILED"), 0);
    ASSERT_NE(taken, nullptr);
    taken->CloseWriteHandle();
    taken->CloseReadHandle();
    EXPECT_TRUE(threads.all_ended_within(10000));
}

TEST_F(Flashing, StopsTheReaderBeforeTheReset) {
    FlashPeripheral& device = bus.add(flash_product);
    add_file({.level = 0x0109});
    attach(device);
    int stopped_at_reset = -1;
    device.on_command = [&](const Bytes& command) {
        if (command == wire::reset) {
            stopped_at_reset = flash->ThreadTable[0].stopped;
        }
    };
    EXPECT_EQ(flash_row(0), 0);
    EXPECT_EQ(stopped_at_reset, 1);
}

TEST_F(Flashing, StopsAtAFailureButVisitsTheRowsBehindIt) {
    FlashPeripheral& bad = bus.add(flash_product);
    FlashPeripheral& good = bus.add(flash_product);
    bad.answers[wire::erase] = {{0x40}};
    add_file({.component = 1, .level = 0x0109});
    add_file({.component = 2, .level = 0x0109});
    for (FlashPeripheral* const device : {&bad, &good}) {
        flashEntry& row = attach(*device);
        add_component(row, 1, 0x0102);
        add_component(row, 2, 0x0102);
    }
    // Minus the code, and the two successes count up from there.
    EXPECT_EQ(pass(1), 0);
    EXPECT_EQ(bad.count(wire::erase), 1);
    EXPECT_EQ(good.count(wire::erase), 2);
    EXPECT_EQ(flash->fe[0].flashStatus, FLASHWRITEERROR);
    EXPECT_EQ(flash->fe[1].flashStatus, FLASHSUCCESS);
}

TEST_F(Flashing, AFailureReplacesEarlierSuccesses) {
    FlashPeripheral& good = bus.add(flash_product);
    FlashPeripheral& bad = bus.add(flash_product);
    bad.answers[wire::erase] = {{0x40}};
    add_file({.level = 0x0109});
    attach(good);
    attach(bad);
    EXPECT_EQ(pass(), -2);
}

TEST_F(Flashing, GoesOnAfterAFailureWhenAsked) {
    FlashPeripheral& bad = bus.add(flash_product);
    FlashPeripheral& good = bus.add(flash_product);
    bad.answers[wire::erase] = {{0x40}};
    continue_on_failure = 1;
    add_file({.component = 1, .level = 0x0109});
    add_file({.component = 2, .level = 0x0109});
    for (FlashPeripheral* const device : {&bad, &good}) {
        flashEntry& row = attach(*device);
        add_component(row, 1, 0x0102);
        add_component(row, 2, 0x0102);
    }
    EXPECT_EQ(pass(1), 2);
    EXPECT_EQ(bad.count(wire::erase), 2);
    EXPECT_EQ(logged("Update failed of Product ID 4123 COMP: 1 finished, rc=2, continue to next "
                     "device"),
              1);
    EXPECT_EQ(logged("Update failed of Product ID 4123 COMP: 2 finished, rc=2, continue to next "
                     "device"),
              1);
}

TEST_F(Flashing, TellsWhenADeviceIsGone) {
    FlashPeripheral& device = bus.add(flash_product);
    add_file({.level = 0x0109});
    flashEntry& row = attach(device);
    device.next_write_results = {LIBUSB_ERROR_NO_DEVICE};
    EXPECT_EQ(pass(), -5);
    EXPECT_EQ(row.flashStatus, FLASHDEVICEGONE);
    EXPECT_EQ(logged("Device gone while firmware update of Product ID 4123 COMP: 0 finished, "
                     "stopping update"),
              1);
    row.flashStatus = NOFLASHATTEMPT;
    continue_on_failure = 1;
    device.next_write_results = {LIBUSB_ERROR_NO_DEVICE};
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(logged("Device gone while firmware update of Product ID 4123 COMP: 0 finished, "
                     "continue to next device"),
              1);
}

TEST_F(Flashing, TellsOfFailuresOnTheConsole) {
    FlashPeripheral& device = bus.add(flash_product);
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
        EXPECT_EQ(told_behind_the_start(), failed + end);
        device.next_write_results = {LIBUSB_ERROR_NO_DEVICE};
        EXPECT_EQ(told_behind_the_start(), gone + end);
    }
}

TEST_F(Flashing, ADeviceThatIsUnpluggedInTheMiddleFails) {
    FlashPeripheral& device = bus.add(flash_product);
    add_file({.component = 1, .level = 0x0109});
    attach(device);
    device.on_command = [&](const Bytes& command) {
        if (command == record) {
            device.unplug();
        }
    };
    EXPECT_EQ(flash_row(0, 1), FLASHDEVICEGONE);
    EXPECT_EQ(flash->hiddev, nullptr);
    EXPECT_EQ(usb.live_handles, 0);
}

TEST_F(Flashing, ADeviceThatIsClosedWhileItIsWaitedForIsGone) {
    FlashPeripheral& device = bus.add(flash_product);
    add_file({.component = 1, .level = 0x0109});
    attach(device);
    device.answers[record] = {};
    sleeps.after_sleep = [&](int) {
        if (device.count(record) == 1) {
            flash->ThreadTable[0].device_closed = 1;
        }
    };
    EXPECT_EQ(flash_row(0, 1), FLASHDEVICEGONE);
    EXPECT_EQ(logged("Read failed on status of command, rc=13"), 1);
    EXPECT_EQ(flash->fe[0].flashStatus, FLASHDEVICEGONE);
}

TEST_F(Flashing, AMarkerSurvivesAFailure) {
    FlashPeripheral& device = bus.add(flash_product);
    device.answers[wire::erase] = {{0x40}};
    add_file({.level = 0x0101});
    directory.write("f0.dat.force", std::string());
    flashEntry& row = attach(device);
    EXPECT_EQ(pass(), -2);
    EXPECT_EQ(row.flashStatus, FLASHWRITEERROR);
    EXPECT_TRUE(std::filesystem::exists(directory.path("f0.dat.force")));
}

TEST_F(Flashing, SaysOnTheConsoleWhatHappensToADevice) {
    FlashPeripheral& device = bus.add(flash_product);
    add_file({.level = 0x0109});
    attach(device);
    const std::string shown = console_of(1, 0, [this] { pass(); });
    EXPECT_NE(shown.find("    Starting firmware update of Product ID 4123"), std::string::npos);
    EXPECT_NE(shown.find(" %100 complete\n"), std::string::npos);
    EXPECT_NE(shown.find("Reset to be done for PID 4123\n"), std::string::npos);
    EXPECT_EQ(shown.find("Erase completed"), std::string::npos);
    EXPECT_EQ(shown.find("Reset needed"), std::string::npos);
    EXPECT_EQ(shown.find("Checksums written"), std::string::npos);
}

namespace {

/// Files that change between their listing and their update.
class ChangedFile : public Flashing {
  protected:
    ChangedFile() : row(attach(device)) { add_file({.level = 0x0109}); }

    void replace(const FirmwareBytes& content) { directory.write("f0.dat", content); }
    /// Nothing reached the device, and the file counts as one that is not there.
    void expect_not_sent(const std::string& reason) {
        row.flashStatus = NOFLASHATTEMPT;
        const int told = logged("No flash file for PID: 4123 C COMP: 0");
        EXPECT_EQ(pass(), 0);
        EXPECT_EQ(row.flashStatus, NOFLASHFILE);
        EXPECT_TRUE(device.commands().empty());
        EXPECT_EQ(log.count("Starting firmware update"), 0);
        EXPECT_GE(logged("File '" + file_name() + "' is not sent: " + reason), 1) << reason;
        EXPECT_EQ(logged("No flash file for PID: 4123 C COMP: 0"), told + 1);
    }
    static constexpr char other_file[] = "it is not the file that was listed";

    FlashPeripheral& device = bus.add(flash_product);
    flashEntry& row;
};

}  // namespace

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
    EXPECT_EQ(pass(), 1);
    EXPECT_EQ(device.count({0x07, 0x00, 0x02, 0x00, 0x01, 0x10, 0x00, 0x00, 0x02}), 1);
}

TEST_F(ChangedFile, IsSentAsItWasBeforeTheErase) {
    device.on_command = [&](const Bytes& command) {
        if (command == wire::erase) {
            std::filesystem::resize_file(file_name(), 9);
        }
    };
    EXPECT_EQ(pass(), 1);
    EXPECT_EQ(row.flashStatus, FLASHSUCCESS);
    EXPECT_EQ(device.commands(),
              (std::vector<Bytes>{wire::erase, record, checksum, wire::reset, wire::stop}));
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
    EXPECT_EQ(pass(1), 1);
    EXPECT_EQ(device.count(wire::erase), 1);
}

TEST_F(ChangedFile, IsComparedByItsRecordsLevelWhenThatIsAskedFor) {
    use_information_record_ec_level = 1;
    replace(
        FirmwareBytes("41230101").record(0xFF, 2, {0, 9, 1, 0x02, 0}).record(0x10, 0, {1}).end());
    files[0].ec_version = 1;
    EXPECT_EQ(pass(), 1);
    EXPECT_EQ(device.count(wire::erase), 1);
}

TEST_F(Flashing, SaysWhyNothingWasSentToADevice) {
    FlashPeripheral& device = bus.add(flash_product);
    add_file({.level = 0x0109});
    add_device(0x0102);
    attach(device);
    const auto told = [&](int entry) {
        return console_of(1, 0, [&] { EXPECT_EQ(flash_row(entry), 0); });
    };
    const std::string start = "Nothing was sent to Product ID 4123 COMP: 0: ";
    EXPECT_EQ(told(0), start + "it can't be opened\n");
    threads.fail_with(EAGAIN);
    EXPECT_EQ(told(1), start +
                           "no thread can be started to read its answers: Resource temporarily "
                           "unavailable\n");
    threads.fail_with(0);
    background_read = 0;
    EXPECT_EQ(told(1), start + "background reading is switched off\n");
    EXPECT_EQ(device.count(wire::erase), 0);
}

namespace {

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

    FlashPeripheral& device = bus.add(flash_product);
};

}  // namespace

TEST_F(Answers, OneForEachMessageLeaveNoDoubt) {
    device.next_answers[wire::erase] = {{{0x80}}, {{0x01}}};
    EXPECT_EQ(pass(), 1);
    EXPECT_EQ(device.count(wire::erase), 2);
    EXPECT_EQ(log.count(doubt), 0);
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
    EXPECT_EQ(pass(), 1);
    EXPECT_EQ(log.count(doubt), 1);
    EXPECT_NE(log.text().find(" status reports could not be read\n"), std::string::npos);
    const std::string text = log.text();
    EXPECT_LT(text.find(doubt), text.find("COMP: 0 finished, rc=0"));
}

TEST_F(Answers, ThatComeTwiceAreCounted) {
    device.answers[nth_record(3)] = {{0x01}, {0x01}};
    EXPECT_EQ(pass(), 1);
    EXPECT_EQ(logged(std::string(doubt) + "1 status report more than messages sent"), 1);
}

TEST_F(Answers, OfAnImageThatFailedNeedNoDoubt) {
    device.answers[nth_record(3)] = {{0x80}, {0x80}};
    EXPECT_EQ(pass(), -2);
    EXPECT_EQ(log.count(doubt), 0);
}

TEST_F(Answers, OfTheImageBeforeDoNotCount) {
    device.answers[nth_record(3)] = {{0x01}, {0x01}};
    EXPECT_EQ(flash_row(0), 0);
    device.answers.clear();
    EXPECT_EQ(flash_row(0), 0);
    EXPECT_EQ(log.count(doubt), 1);
}

namespace {

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

    FlashPeripheral& device = bus.add(flash_product);
};

}  // namespace

TEST_F(ShortReport, CutsLongRecords) {
    set_report(40);
    write({1, 32, 33, 255, 32, 34});
    EXPECT_EQ(told().find("Messages are cut short: record 3 needs 41 bytes, the device's report "
                          "holds 40 (records cut short: 3)\n"),
              0U);
}

TEST_F(ShortReport, HoldsItsSizeBesideTheReportId) {
    erase_timeout = 30;
    set_report(40, true);
    write({32});
    EXPECT_EQ(told().find("cut short"), std::string::npos);
    write({33});
    EXPECT_NE(told().find("record 1 needs 41 bytes"), std::string::npos);
}

TEST_F(ShortReport, DoesNotMatterToARecordThatIsNotSent) {
    set_report(40);
    directory.write("f0.dat", FirmwareBytes("41230109").lying_record(60, 0x10, 0, Bytes(50, 7)));
    EXPECT_EQ(told().find("cut short"), std::string::npos);
}

TEST_F(ShortReport, ThatIsMissingTakesNothing) {
    set_report(40);
    device.usb().report_descriptor.clear();
    EXPECT_EQ(told().find(
                  "The report for messages to the device is not known: without it nothing is sent\n"
                  "Erase of flash image area failed, rc=8\n"),
              0U);
}
