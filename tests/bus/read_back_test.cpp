// Reading a component's data into a file, and sending it back.
#include "support/bus_test.h"
#include "support/hexadecimal.h"

#include <gmock/gmock.h>

using testing::EndsWith;
using testing::HasSubstr;

namespace {

class ReadBack : public BusTest {
  protected:
    static SimDevice printer() {
        SimDevice device;
        device.components = {{}, {.id = 1}};
        return device;
    }
    RunResult read_component(const std::string& component) {
        return run({"-G", component, "-w", path("read.dat")});
    }
};

}  // namespace

TEST_F(ReadBack, FileReadEqualsTheFileSent) {
    const FirmwareFile file = {.component = 1, .data_records = 40};
    set_bus({printer()});
    add_firmware("boot.dat", file);
    EXPECT_EQ(update().exit_code, 0);
    EXPECT_EQ(read_component("1").exit_code, 0);
    EXPECT_EQ(to_hex(read_file(path("read.dat"))), to_hex(file.bytes()));
}

TEST_F(ReadBack, HeaderIsProductAndLevelOfTheComponent) {
    SimDevice device = printer();
    device.components[1].level = "0b.2c";
    set_bus({device});
    EXPECT_EQ(read_component("1").exit_code, 0);
    EXPECT_EQ(read_file(path("read.dat")).substr(0, 8), "3c350b2c");
}

TEST_F(ReadBack, FileReadCanBeSentBack) {
    set_bus({printer()});
    EXPECT_EQ(read_component("1").exit_code, 0);
    const std::string bytes = read_file(path("read.dat"));
    ASSERT_GT(bytes.size(), 11U);
    EXPECT_EQ(run({"-F", path("read.dat"), "-f"}).exit_code, 0);
    EXPECT_EQ(to_hex(image("printer", 1)), to_hex(bytes.substr(8)));
    EXPECT_EQ(state().component(1).level, "01.02");
}

TEST_F(ReadBack, MainComponentCanBeRead) {
    set_bus({printer()});
    EXPECT_EQ(read_component("0").exit_code, 0);
    EXPECT_EQ(read_file(path("read.dat")).substr(0, 8), "3c350102");
}

TEST_F(ReadBack, ComponentNumberTravelsInFourBits) {
    set_bus({printer()});
    const RunResult result = read_component("17");
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.console, HasSubstr("Component:17 read successfully\n"));
    EXPECT_THAT(commands("printer"), testing::Contains("06002100ff100000"));
    EXPECT_EQ(read_file(path("read.dat")).substr(0, 8), "3c350000");
    EXPECT_EQ(read_component("25").exit_code, 8);
}

TEST_F(ReadBack, DeviceWithReportIdsCanBeRead) {
    SimDevice device = printer();
    device.interface_keys = "report_ids = true";
    const FirmwareFile file = {.component = 1};
    set_bus({device});
    add_firmware("boot.dat", file);
    EXPECT_EQ(update().exit_code, 0);
    EXPECT_EQ(read_component("1").exit_code, 0);
    EXPECT_EQ(to_hex(read_file(path("read.dat"))), to_hex(file.bytes()));
}

TEST_F(ReadBack, LongRecordsAreReadWhole) {
    // The longest that one answer holds.
    const FirmwareFile file = {.component = 1,
                               .data_records = 0,
                               .further_records = {from_hex("ff100000") + std::string(255, 'x')}};
    set_bus({printer()});
    add_firmware("boot.dat", file);
    EXPECT_EQ(update().exit_code, 0);
    EXPECT_EQ(read_component("1").exit_code, 0);
    EXPECT_EQ(to_hex(read_file(path("read.dat"))), to_hex(file.bytes()));
}

TEST_F(ReadBack, LastDeviceReadIsTheOneInTheFile) {
    set_bus({printer(),
             {.name = "scanner",
              .product = 0x3C36,
              .serial = "SC0001",
              .components = {{}, {.id = 1, .level = "01.09"}}}});
    const RunResult result = read_component("1");
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.console,
              "Reading data from device PID:3c35 Component:1 SN='PR0001'\n"
              "Device PID:3c35 Component:1 read successfully\n"
              "Reading data from device PID:3c36 Component:1 SN='SC0001'\n"
              "Device PID:3c36 Component:1 read successfully\n");
    EXPECT_EQ(read_file(path("read.dat")).substr(0, 8), "3c360109");
}

TEST_F(ReadBack, OneFailureAmongSeveralGives8) {
    set_bus({printer(),
             {.name = "scanner",
              .product = 0x3C36,
              .serial = "SC0001",
              .components = {{}, {.id = 1, .level = "01.09"}}}},
            fault_text("printer", "read-records", "operation-error"));
    const RunResult result = read_component("1");
    EXPECT_EQ(result.exit_code, 8);
    EXPECT_THAT(result.console, HasSubstr("Device PID:3c35 Component:1 read failed, rc=2\n"));
    EXPECT_THAT(result.console, EndsWith("Device PID:3c36 Component:1 read successfully\n"));
}

TEST_F(ReadBack, BlockThatCannotBeFetchedFailsTheRead) {
    set_bus({printer()},
            fault_text("printer", "record-read", "stall", "number = 3\ntimes = \"always\""));
    const RunResult result = read_component("1");
    EXPECT_EQ(result.exit_code, 8);
    EXPECT_THAT(result.console, EndsWith("Device PID:3c35 Component:1 read failed, rc=12\n"));
    EXPECT_THAT(result.log, HasSubstr("Reading data failed, rc=12\n"));
}

TEST_F(ReadBack, AnswerThatEndsAtOnceGivesHeaderAndThreeBytes) {
    set_bus({printer()},
            fault_text("printer", "record-read", "answer", "bytes = \"01 00 00 12 34 00 00 00\""));
    EXPECT_EQ(read_component("1").exit_code, 0);
    EXPECT_EQ(to_hex(read_file(path("read.dat"))), to_hex("3c350102") + "001234");
}
