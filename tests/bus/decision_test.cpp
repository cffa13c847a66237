// Whether a component is updated, and what the device holds then. All levels, build levels and
// controls are in tests/unit/update_test.cpp.
#include "support/bus_test.h"

#include <gmock/gmock.h>

#include <algorithm>

using testing::EndsWith;
using testing::HasSubstr;

namespace {

constexpr char not_lower[] =
    "    File EC level smaller or equal, no update needed for PID: 3c35  COMP: 1";

/// A printer whose component 1 is updated: it needs no reset.
class UpdateDecision : public BusTest {
  protected:
    void set_component(const SimComponent& component) {
        SimDevice device;
        device.components = {{}, component};
        set_bus({device});
    }
    bool has_erased() const {
        const auto sent = commands("printer");
        return std::find(sent.begin(), sent.end(), erase_command) != sent.end();
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

TEST_F(UpdateDecision, IsMadeByLevelBuildControlAndForce) {
    const struct {
        SimComponent device;
        FirmwareFile file;
        std::vector<std::string> options;
        const char* told;
        const char* level;  ///< afterwards; empty when the component is left alone
        int build = 0;
    } rows[] = {
        {{.id = 1, .level = "01.02", .build = 3},
         {.level = "0102", .component = 1, .build = 4},
         {},
         "    EC level when complete should be 01.02.04\n",
         "01.02",
         4},
        {{.id = 1, .level = "01.03"}, {.level = "0103", .component = 1}, {}, not_lower, ""},
        {{.id = 1, .level = "01.04", .control = "random"},
         {.level = "0103", .component = 1, .random = true},
         {},
         "    Random version control for Product ID: 3c35 COMP: 1 (from: 01.04.00 -> to: "
         "01.03.00)\n",
         "01.03"},
        {{.id = 1, .level = "01.04"},
         {.level = "0103", .component = 1},
         {"-f"},
         "    Force update for Product ID: 3c35 COMP: 1 (from: 01.04.00 -> to: 01.03.00)\n",
         "01.03"},
        {{.id = 1, .level = "01.02"},
         {.level = "0205", .component = 1},
         {"-f"},
         "PID: 3c35 COMP: 1 - Version mismatch (file=2, device=1)",
         ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.told);
        std::filesystem::remove_all(path("state"));
        set_component(row.device);
        add_firmware("boot.dat", row.file);
        const RunResult result = update(row.options);
        if (std::string(row.level).empty()) {
            expect_left_alone(result, row.told);
            continue;
        }
        expect_updated(result);
        EXPECT_THAT(result.console, HasSubstr(row.told));
        EXPECT_EQ(state().component(1).level, row.level);
        EXPECT_EQ(state().component(1).build, row.build);
    }
}

TEST_F(UpdateDecision, ForceMarkerTakesAnEqualLevelAndIsDeleted) {
    set_component({.id = 1, .level = "01.03"});
    const std::string file = add_firmware("boot.dat", {.level = "0103", .component = 1});
    write_file(file + ".force", "");
    const RunResult result = update();
    expect_updated(result);
    EXPECT_THAT(result.console, HasSubstr("    Force update for Product ID: 3c35 COMP: 1 "
                                          "(from: 01.03.00 -> to: 01.03.00)\n"));
    EXPECT_FALSE(std::filesystem::exists(file + ".force"));
}

TEST_F(UpdateDecision, ForceMarkerIsKeptWhenTheUpdateFails) {
    SimDevice device;
    device.components = {{}, {.id = 1, .level = "01.03"}};
    set_bus({device}, fault_text("printer", "record", "reject", "number = 4"));
    const std::string file = add_firmware("boot.dat", {.level = "0103", .component = 1});
    write_file(file + ".force", "");
    EXPECT_EQ(update().exit_code, 6);
    EXPECT_TRUE(has_erased());
    EXPECT_TRUE(std::filesystem::exists(file + ".force"));
}

TEST_F(UpdateDecision, LetterAsVersionDigitMatchesInLowerCaseOnly) {
    set_component({.id = 1, .level = "0a.10"});
    add_firmware("boot.dat", {.level = "0A11", .component = 1});
    EXPECT_THAT(update().console,
                HasSubstr("PID: 3c35 COMP: 1 - Version mismatch (file=11, device=31)\n"));
    EXPECT_FALSE(has_erased());
    add_firmware("boot.dat", {.level = "0a11", .component = 1});
    expect_updated(update());
}

TEST_F(UpdateDecision, VersionDigitIsSkippedOnRequest) {
    set_component({.id = 1, .level = "01.02"});
    add_firmware("boot.dat", {.level = "0205", .component = 1});
    expect_updated(update({"-o", "4"}));
    EXPECT_EQ(state().component(1).level, "02.05");
}

TEST_F(UpdateDecision, FileOfAnotherComponentIsTakenWithAnOverride) {
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

TEST_F(UpdateDecision, CheckOnlyReportsTheUpdateAndSendsNothing) {
    set_component({.id = 1, .level = "01.02"});
    add_firmware("boot.dat", {.level = "0103", .component = 1});
    const RunResult result = update({"-o", "99"});
    expect_updated(result);
    EXPECT_FALSE(has_erased());
    EXPECT_EQ(image("printer", 1), "");
}

TEST_F(UpdateDecision, CheckOnlyOfTheMainComponentStillWaitsForAReset) {
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

TEST_F(UpdateDecision, InformationRecordsLevelIsTakenOnRequest) {
    set_component({.id = 1, .level = "01.04"});
    // The header says 01.05, a record says 01.03.
    FirmwareFile file = {.level = "0105", .component = 1, .extended_list = false};
    std::string bytes = file.bytes();
    const std::string version_record("\x02\xF1\x00\x01\x03\x01", 6);
    bytes.insert(8 + file.records().front().size(), version_record);
    add_raw_firmware("boot.dat", bytes);
    expect_left_alone(update({"-o", "1"}), not_lower);
}
