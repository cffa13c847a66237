// Whether a component is updated: levels, build levels, version control, force.
#include "support/bus_test.h"

#include <gmock/gmock.h>

#include <algorithm>

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr char erase[] = "04000100";
constexpr char not_lower[] =
    "    File EC level smaller or equal, no update needed for PID: 3c35  COMP: 1";
constexpr char random_equal[] =
    "    Random control with file and device EC levels equal, no update needed for PID: 3c35  "
    "COMP: 1";

/// A printer whose component 1 is updated: it needs no reset.
class Decision : public BusTest {
  protected:
    void set_component(const SimComponent& component) {
        SimDevice device;
        device.components = {{}, component};
        set_bus({device});
    }
    bool has_erased() const {
        const auto sent = commands("printer");
        return std::find(sent.begin(), sent.end(), erase) != sent.end();
    }
    void expect_updated(const RunResult& result) {
        EXPECT_EQ(result.exit_code, 0);
        EXPECT_THAT(result.console,
                    EndsWith("Firmware update of Product ID 3c35 COMP: 1 finished, rc=0\n"
                             "Updated 1 device\n"));
    }
    void expect_left_alone(const RunResult& result, const std::string& reason) {
        EXPECT_EQ(result.exit_code, 6);
        EXPECT_THAT(result.console, EndsWith(reason + "\nNo devices updated\n"));
        EXPECT_FALSE(has_erased());
    }
};

}  // namespace

TEST_F(Decision, IncreasingControlTakesAHigherLevel) {
    set_component({.id = 1, .level = "01.02"});
    add_firmware("boot.dat", {.level = "0103", .component = 1});
    expect_updated(update());
    EXPECT_EQ(state().component(1).level, "01.03");
}

TEST_F(Decision, IncreasingControlLeavesAnEqualLevel) {
    set_component({.id = 1, .level = "01.03"});
    add_firmware("boot.dat", {.level = "0103", .component = 1});
    expect_left_alone(update(), not_lower);
}

TEST_F(Decision, IncreasingControlLeavesALowerLevel) {
    set_component({.id = 1, .level = "01.04"});
    add_firmware("boot.dat", {.level = "0103", .component = 1});
    expect_left_alone(update(), not_lower);
}

TEST_F(Decision, BuildLevelDecidesBetweenEqualLevels) {
    set_component({.id = 1, .level = "01.02", .build = 3});
    add_firmware("boot.dat", {.level = "0102", .component = 1, .build = 4});
    const RunResult result = update();
    expect_updated(result);
    EXPECT_THAT(result.console, HasSubstr("    EC level when complete should be 01.02.04\n"));
    EXPECT_EQ(state().component(1).build, 4);
}

TEST_F(Decision, LowerBuildLevelIsNotTaken) {
    set_component({.id = 1, .level = "01.02", .build = 4});
    add_firmware("boot.dat", {.level = "0102", .component = 1, .build = 3});
    expect_left_alone(update(), not_lower);
}

TEST_F(Decision, LevelWeighsMoreThanBuildLevel) {
    set_component({.id = 1, .level = "01.03", .build = 0});
    add_firmware("boot.dat", {.level = "0102", .component = 1, .build = 9});
    expect_left_alone(update(), not_lower);
}

TEST_F(Decision, RandomControlOfTheDeviceTakesALowerLevel) {
    set_component({.id = 1, .level = "01.04", .control = "random"});
    add_firmware("boot.dat", {.level = "0103", .component = 1, .random = true});
    const RunResult result = update();
    expect_updated(result);
    EXPECT_THAT(result.console, HasSubstr("    Random version control for Product ID: 3c35 COMP: "
                                          "1 (from: 01.04.00 -> to: 01.03.00)\n"));
    EXPECT_EQ(state().component(1).level, "01.03");
}

TEST_F(Decision, RandomControlOfTheFileAloneTakesALowerLevel) {
    set_component({.id = 1, .level = "01.04"});
    add_firmware("boot.dat", {.level = "0103", .component = 1, .random = true});
    expect_updated(update());
}

TEST_F(Decision, RandomControlOfTheDeviceAloneTakesALowerLevel) {
    set_component({.id = 1, .level = "01.04", .control = "random"});
    add_firmware("boot.dat", {.level = "0103", .component = 1});
    expect_updated(update());
}

TEST_F(Decision, RandomControlLeavesAnEqualLevel) {
    set_component({.id = 1, .level = "01.03", .control = "random"});
    add_firmware("boot.dat", {.level = "0103", .component = 1, .random = true});
    expect_left_alone(update(), random_equal);
}

TEST_F(Decision, RandomControlTakesEqualLevelsByForce) {
    set_component({.id = 1, .level = "01.03", .control = "random"});
    add_firmware("boot.dat", {.level = "0103", .component = 1, .random = true});
    const RunResult result = update({"-f"});
    expect_updated(result);
    EXPECT_THAT(result.console, HasSubstr("    Force update for Product ID: 3c35 COMP: 1 "
                                          "(from: 01.03.00 -> to: 01.03.00)\n"));
}

TEST_F(Decision, ForceOptionTakesAnEqualLevel) {
    set_component({.id = 1, .level = "01.03"});
    add_firmware("boot.dat", {.level = "0103", .component = 1});
    const RunResult result = update({"-f"});
    expect_updated(result);
    EXPECT_THAT(result.console, HasSubstr("    Force update for Product ID: 3c35 COMP: 1 "
                                          "(from: 01.03.00 -> to: 01.03.00)\n"));
}

TEST_F(Decision, ForceOptionTakesALowerLevel) {
    set_component({.id = 1, .level = "01.04"});
    add_firmware("boot.dat", {.level = "0103", .component = 1});
    expect_updated(update({"-f"}));
    EXPECT_EQ(state().component(1).level, "01.03");
}

TEST_F(Decision, ForceMarkerTakesAnEqualLevelAndIsDeleted) {
    set_component({.id = 1, .level = "01.03"});
    const std::string file = add_firmware("boot.dat", {.level = "0103", .component = 1});
    write_file(file + ".force", "");
    const RunResult result = update();
    expect_updated(result);
    EXPECT_THAT(result.console, HasSubstr("    Force update for Product ID: 3c35 COMP: 1 "
                                          "(from: 01.03.00 -> to: 01.03.00)\n"));
    EXPECT_FALSE(std::filesystem::exists(file + ".force"));
}

TEST_F(Decision, ForceMarkerOfAnotherFileIsOfNoUse) {
    set_component({.id = 1, .level = "01.03"});
    const std::string file = add_firmware("boot.dat", {.level = "0103", .component = 1});
    write_file(firmware_path("main.dat.force"), "");
    expect_left_alone(update(), not_lower);
    EXPECT_TRUE(std::filesystem::exists(firmware_path("main.dat.force")));
}

TEST_F(Decision, ForceMarkerIsKeptWhenTheUpdateFails) {
    SimDevice device;
    device.components = {{}, {.id = 1, .level = "01.03"}};
    set_bus({device}, fault_text("printer", "record", "reject", "number = 4"));
    const std::string file = add_firmware("boot.dat", {.level = "0103", .component = 1});
    write_file(file + ".force", "");
    EXPECT_EQ(update().exit_code, 6);
    EXPECT_TRUE(has_erased());
    EXPECT_TRUE(std::filesystem::exists(file + ".force"));
}

TEST_F(Decision, ForceMarkerIsKeptWhenTheLevelAloneAsksForTheUpdate) {
    set_component({.id = 1, .level = "01.02"});
    const std::string file = add_firmware("boot.dat", {.level = "0103", .component = 1});
    write_file(file + ".force", "");
    expect_updated(update());
    EXPECT_TRUE(std::filesystem::exists(file + ".force"));
}

TEST_F(Decision, ForceMarkerIsKeptWithTheForceOption) {
    set_component({.id = 1, .level = "01.03"});
    const std::string file = add_firmware("boot.dat", {.level = "0103", .component = 1});
    write_file(file + ".force", "");
    expect_updated(update({"-f"}));
    EXPECT_TRUE(std::filesystem::exists(file + ".force"));
}

TEST_F(Decision, OtherVersionDigitIsNotTaken) {
    set_component({.id = 1, .level = "01.02"});
    add_firmware("boot.dat", {.level = "0205", .component = 1});
    const RunResult result = update();
    EXPECT_EQ(result.exit_code, 6);
    EXPECT_THAT(result.console, EndsWith("PID: 3c35 COMP: 1 - Version mismatch (file=2, device=1)\n"
                                         "No devices updated\n"));
    EXPECT_FALSE(has_erased());
}

TEST_F(Decision, OtherVersionDigitIsNotTakenEvenByForce) {
    set_component({.id = 1, .level = "01.02"});
    add_firmware("boot.dat", {.level = "0205", .component = 1});
    EXPECT_EQ(update({"-f"}).exit_code, 6);
    EXPECT_FALSE(has_erased());
}

TEST_F(Decision, LetterAsVersionDigitCountsFrom49) {
    set_component({.id = 1, .level = "0a.10"});
    add_firmware("boot.dat", {.level = "0111", .component = 1});
    EXPECT_THAT(update().console,
                HasSubstr("PID: 3c35 COMP: 1 - Version mismatch (file=1, device=31)\n"));
}

TEST_F(Decision, LetterAsVersionDigitMatchesInLowerCaseOnly) {
    set_component({.id = 1, .level = "0a.10"});
    add_firmware("boot.dat", {.level = "0A11", .component = 1});
    EXPECT_THAT(update().console,
                HasSubstr("PID: 3c35 COMP: 1 - Version mismatch (file=11, device=31)\n"));
    EXPECT_FALSE(has_erased());
    add_firmware("boot.dat", {.level = "0a11", .component = 1});
    expect_updated(update());
}

TEST_F(Decision, VersionDigitIsSkippedOnRequest) {
    set_component({.id = 1, .level = "01.02"});
    add_firmware("boot.dat", {.level = "0205", .component = 1});
    expect_updated(update({"-o", "4"}));
    EXPECT_EQ(state().component(1).level, "02.05");
}

TEST_F(Decision, FileBehindAMismatchIsFound) {
    set_component({.id = 1, .level = "01.02"});
    add_firmware("two.dat", {.level = "0205", .component = 1});
    add_firmware("one.dat", {.level = "0106", .component = 1});
    const RunResult result = run({"-F", "two.dat", "-F", "one.dat", "-p", firmware_directory()});
    EXPECT_THAT(result.console,
                HasSubstr("PID: 3c35 COMP: 1 - Version mismatch (file=2, device=1)\n\n"
                          "Firmware file found:  " +
                          firmware_path("one.dat") + "\n"));
    expect_updated(result);
}

TEST_F(Decision, FileOfAnotherComponentIsNotTaken) {
    set_component({.id = 1, .level = "01.02"});
    add_firmware("font.dat", {.level = "0105", .component = 2});
    const RunResult result = update();
    EXPECT_EQ(result.exit_code, 6);
    EXPECT_THAT(result.console, Not(HasSubstr("Firmware file found")));
    EXPECT_FALSE(has_erased());
}

TEST_F(Decision, FileOfAnotherComponentIsTakenWithAnOverride) {
    SimDevice device;
    device.components = {{}, {.id = 2, .level = "01.02"}};
    set_bus({device});
    const FirmwareFile file = {.level = "0105", .component = 1};
    add_firmware("boot.dat", file);
    const RunResult result = update({"-c", "2"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.console,
                HasSubstr("  File   - PID: 3c35  COMP: 02  TYPE: FW   CONTROL: Increasing   EC: "
                          "01.05.00\n"));
    EXPECT_EQ(state().component(2).level, "01.05");
}

TEST_F(Decision, CheckOnlyReportsTheUpdateAndSendsNothing) {
    set_component({.id = 1, .level = "01.02"});
    add_firmware("boot.dat", {.level = "0103", .component = 1});
    const RunResult result = update({"-o", "99"});
    expect_updated(result);
    EXPECT_FALSE(has_erased());
    EXPECT_EQ(image("printer", 1), "");
}

TEST_F(Decision, CheckOnlyOfTheMainComponentStillWaitsForAReset) {
    set_bus({SimDevice{}});
    add_firmware("main.dat", {});
    const RunResult result = update({"-o", "99"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.console,
                EndsWith("Firmware update of Product ID 3c35 COMP: 0 finished, rc=0\n"
                         "Sleeping to allow reset device to respond\nSleeping finished\n"
                         "Updated 1 device\n"));
    EXPECT_FALSE(has_erased());
}

TEST_F(Decision, InformationRecordsLevelIsTakenOnRequest) {
    set_component({.id = 1, .level = "01.04"});
    // The header says 01.05, a record says 01.03.
    FirmwareFile file = {.level = "0105", .component = 1, .extended_list = false};
    std::string bytes = file.bytes();
    const std::string version_record("\x02\xF1\x00\x01\x03\x01", 6);
    bytes.insert(8 + file.records().front().size(), version_record);
    add_raw_firmware("boot.dat", bytes);
    expect_left_alone(update({"-o", "1"}), not_lower);
}
