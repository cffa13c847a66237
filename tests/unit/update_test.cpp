// Which components an update visits, and what it decides about each.
#include "support/update_test.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

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
