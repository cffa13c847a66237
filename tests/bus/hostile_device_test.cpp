// Devices that answer nonsense, and buses with more devices than the table holds.
#include "support/bus_test.h"

#include <gmock/gmock.h>

#include <algorithm>

using testing::HasSubstr;

namespace {

class HostileDevice : public BusTest {
  protected:
    void set_answer(const std::string& at, const std::string& action, const std::string& bytes) {
        set_bus({SimDevice{}},
                fault_text("printer", at, action, "bytes = \"" + bytes + "\"\ntimes = \"always\""));
    }
    /// The console of `-L`, which must not fail.
    std::string listed() {
        const RunResult result = run({"-L"});
        EXPECT_EQ(result.exit_code, 0);
        EXPECT_EQ(result.errors, "");
        return result.console;
    }
    /// A data answer of that many entries, each with its own component number.
    static std::string list_of(int entries) {
        std::string text = "01 00 " + hex(entries * 5) + " ff 00 02";
        for (int i = 0; i < entries; ++i) {
            text += " " + hex(i) + " 07 01 02 00";
        }
        return text;
    }
    static std::string hex(int value) {
        char text[8];
        snprintf(text, sizeof(text), "%02x", static_cast<unsigned int>(value) & 0xFFU);
        return text;
    }
};

}  // namespace

TEST_F(HostileDevice, ListEndsAtTwentyComponents) {
    set_answer("extended-list", "data", list_of(40));
    std::string expected;
    for (int i = 0; i < 20; ++i) {
        expected += list_line(0x3C35, i, "01.07", "PR0001") + "\n";
    }
    EXPECT_EQ(listed(), expected);
}

TEST_F(HostileDevice, ComponentNumbersBeyondTheTableAreIgnored) {
    set_answer("extended-list", "data",
               "01 00 14 ff 00 02  00 03 01 02 00  14 07 01 02 00  ff 07 01 02 00  05 09 01 02 00");
    EXPECT_EQ(listed(), list_line(0x3C35, 0, "01.03", "PR0001") + "\n" +
                            list_line(0x3C35, 5, "01.09", "PR0001") + "\n");
}

TEST_F(HostileDevice, ListOfOddLengthFallsBackToThePlainOne) {
    set_answer("extended-list", "data", "01 00 07 ff 00 02  00 03 01 02 00  01 03");
    EXPECT_EQ(listed(), list_line(0x3C35, 0, "01.02", "PR0001") + "\n");
}

TEST_F(HostileDevice, ListThatIsAllOnesDoesNoHarm) {
    set_answer("extended-list", "data", "ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff");
    EXPECT_THAT(listed(), HasSubstr("PID: 3c35  COMP: 00 "));
}

TEST_F(HostileDevice, AnswerWithoutDataFallsBackToNothing) {
    set_answer("get-feature", "answer", "00");
    EXPECT_THAT(listed(), HasSubstr("PID: 3c35  COMP: 00 "));
}

TEST_F(HostileDevice, StatusOfAllOnesIsARejection) {
    set_answer("device-info", "answer", "ff ff ff ff ff ff ff ff");
    // Without features there is no extended list, but a plain one.
    EXPECT_EQ(listed(), list_line(0x3C35, 0, "01.02", "PR0001") + "\n");
}

TEST_F(HostileDevice, UnreadableReportDescriptorLeavesTheDeviceOut) {
    set_bus({SimDevice{}},
            fault_text("printer", "report-descriptor", "stall", "times = \"always\""));
    const RunResult result = run({"-L"});
    EXPECT_EQ(result.exit_code, 5);
    EXPECT_EQ(result.console, "No devices found\n");
}

TEST_F(HostileDevice, NonsenseAsReportDescriptorDoesNoHarm) {
    set_answer("report-descriptor", "answer", "06 45 ff 0a 01 a0 75 ff 96 ff ff 91 02 a4 a4 b4 fe");
    const RunResult result = run({"-L"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.console, "PID: 3c35  COMP: 00  TYPE: UNK  EC: 00.00    (SN='PR0001')\n");
}

TEST_F(HostileDevice, HaltedEndpointLeavesThePreviousStatusStanding) {
    SimDevice device;
    device.components = {{}, {.id = 1}};
    // The reports of the table's queries, of the stop, of erase and two records come before.
    set_bus({device}, fault_text("printer", "interrupt", "stall", "number = 9"));
    const FirmwareFile file = {.component = 1};
    add_firmware("boot.dat", file);
    const RunResult result = update();
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.log, HasSubstr("Read end point halted, rc=-9\n"));
    EXPECT_EQ(image("printer", 1), file.body());
}

TEST_F(HostileDevice, EmptyReportIsNoAnswer) {
    SimDevice device;
    device.components = {{}, {.id = 1}};
    set_bus({device}, fault_text("printer", "interrupt", "empty", "number = 9"));
    add_firmware("boot.dat", {.component = 1});
    const RunResult result = update({"-2", "700"});
    EXPECT_EQ(result.exit_code, 6);
    EXPECT_THAT(result.console, HasSubstr("Firmware update FAILED\n"));
}

TEST_F(HostileDevice, AnswersThatComeTooLateAreLeftOut) {
    set_bus({SimDevice{}}, fault_text("printer", "ec-level", "late", "ms = 5000"));
    information_timeout = 600;
    EXPECT_EQ(listed(), list_line(0x3C35, 0, "01.02", "PR0001") + "\n");
}

TEST_F(HostileDevice, TableHolds128Devices) {
    std::string text = quick_timing() +
                       "[[hub]]\nname = \"left\"\nbus = 1\nports = 80\n"
                       "[[hub]]\nname = \"right\"\nbus = 2\nports = 80\n";
    for (int i = 0; i < 130; ++i) {
        // An excluded product is listed without a query.
        text += device_text({.name = "device-" + std::to_string(i),
                             .product = 0x3C75,
                             .device_keys = i < 65 ? "hub = \"left\"" : "hub = \"right\""});
    }
    set_bus(text);
    const std::string lines = listed();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 128);
}
