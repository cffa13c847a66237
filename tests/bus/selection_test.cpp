// Which devices a command sees: filters, vendors, excluded products, products without a file.
#include "support/bus_test.h"

#include <gmock/gmock.h>

using testing::Contains;
using testing::EndsWith;
using testing::IsEmpty;
using testing::Not;

namespace {

/// Two printers and a scanner.
class SelectedDevices : public BusTest {
  protected:
    SelectedDevices() {
        set_bus({{.name = "printer-1", .product = 0x3C35, .serial = "PR0001"},
                 {.name = "printer-2", .product = 0x3C35, .serial = "PR0002"},
                 {.name = "scanner", .product = 0x3C36, .serial = "SC0001"}});
    }

    /// The lines of `-L` with these options.
    std::string listed(const std::vector<std::string>& options) {
        std::vector<std::string> arguments = {"-L"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        const RunResult result = run(arguments);
        EXPECT_EQ(result.exit_code, 0);
        return result.console;
    }

    const std::string printer_1 = list_line(0x3C35, 0, "01.02", "PR0001") + "\n";
    const std::string printer_2 = list_line(0x3C35, 0, "01.02", "PR0002") + "\n";
    const std::string scanner = list_line(0x3C36, 0, "01.02", "SC0001") + "\n";
};

}  // namespace

TEST_F(SelectedDevices, AreThoseThatProductAndSerialNumberFiltersLetPass) {
    const struct {
        std::vector<std::string> filter;
        std::string devices;
    } rows[] = {
        {{}, printer_1 + printer_2 + scanner},
        {{"-d", "3c35"}, printer_1 + printer_2},
        {{"-d", "3C36"}, scanner},
        {{"-d", "3c36", "-d", "3c35"}, printer_1 + printer_2 + scanner},
        {{"-d", "0"}, ""},
        {{"-d", "0", "-d", "3c36"}, scanner},
        {{"-s", "PR0002"}, printer_2},
        {{"-s", "PR000"}, ""},
        {{"-s", "SC0001", "-s", "PR0001"}, printer_1 + scanner},
        {{"-d", "3c35", "-s", "PR0001"}, printer_1},
        {{"-d", "3c36", "-s", "PR0001"}, ""},
        {{"-s", "pr0002"}, ""},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(listed(row.filter), row.devices) << testing::PrintToString(row.filter);
    }
    // The ones that are left out are asked all the same.
    EXPECT_THAT(commands("printer-2"), Not(IsEmpty()));
}

TEST_F(SelectedDevices, UpdateLeavesDevicesAloneThatTheFilterLeavesOut) {
    const FirmwareFile file;
    add_firmware("main.dat", file);
    const RunResult result = update({"-s", "PR0002"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.console, EndsWith("Updated 1 device\n"));
    EXPECT_EQ(image("printer-2", 0), file.body());
    EXPECT_THAT(commands("printer-1"), Not(Contains(erase_command)));
    EXPECT_EQ(image("printer-1", 0), "");
}

TEST_F(SelectedDevices, UpdateWithAFilterThatNothingPassesUpdatesNothing) {
    add_firmware("main.dat", {});
    for (const auto& filter : std::vector<std::vector<std::string>>{
             {"-s", "nobody"}, {"-d", "3c99"}, {"-d", "0"}, {"-d", "3c36", "-s", "PR0001"}}) {
        const RunResult result = update(filter);
        EXPECT_EQ(result.exit_code, 6);
        EXPECT_THAT(result.console, EndsWith("\nNo devices updated\n"));
        EXPECT_THAT(commands("printer-1"), Not(Contains(erase_command)));
    }
}

TEST_F(SelectedDevices, ResetTakesTheFilter) {
    const RunResult result = run({"-R", "-d", "3c36"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.console,
              "Resetting device PID:3c36 SN='SC0001'\n"
              "Device PID:3c36 reset successfully\n"
              "Reset successful on 1 device\n");
    EXPECT_THAT(commands("printer-1"), Not(Contains(reset_command)));
    EXPECT_THAT(commands("scanner"), Contains(reset_command));
}

TEST_F(SelectedDevices, OnlyDevicesWithAFirmwareFileGetCommandsInAnUpdate) {
    add_firmware("scanner.dat", {.product = 0x3C36, .level = "0101"});
    EXPECT_EQ(update().exit_code, 6);
    EXPECT_THAT(commands("printer-1"), IsEmpty());
    EXPECT_THAT(commands("printer-2"), IsEmpty());
    EXPECT_THAT(commands("scanner"), Not(IsEmpty()));
}

TEST_F(SelectedDevices, ListAsksDevicesWithoutAFirmwareFile) {
    add_firmware("scanner.dat", {.product = 0x3C36});
    EXPECT_EQ(listed({}), printer_1 + printer_2 + scanner);
    EXPECT_THAT(commands("printer-1"), Not(IsEmpty()));
}

TEST_F(SelectedDevices, ThreeVendorsAreSupported) {
    set_bus({{.name = "one", .serial = "ONE", .vendor = 0x7A01},
             {.name = "two", .serial = "TWO", .vendor = 0x7A02},
             {.name = "three", .serial = "THREE", .vendor = 0x7A03},
             {.name = "four", .serial = "FOUR", .vendor = 0x7A04}});
    EXPECT_EQ(listed({}), list_line(0x3C35, 0, "01.02", "ONE") + "\n" +
                              list_line(0x3C35, 0, "01.02", "TWO") + "\n" +
                              list_line(0x3C35, 0, "01.02", "THREE") + "\n");
    EXPECT_THAT(commands("four"), IsEmpty());
}

TEST_F(SelectedDevices, OtherVendorsAreSupportedOnRequest) {
    set_bus({{.name = "four", .serial = "FOUR", .vendor = 0x0ABC}});
    EXPECT_EQ(listed({"-o", "5"}), list_line(0x3C35, 0, "01.02", "FOUR") + "\n");
}

TEST_F(SelectedDevices, ExcludedProductsGetNoCommandAndShowTheirUsbVersion) {
    for (const unsigned int product : {0x3C75U, 0x3C76U, 0x3C77U, 0x3C78U, 0x3C79U}) {
        set_bus({{.product = product, .device_keys = "bcd = 0x0307"}});
        EXPECT_EQ(listed({}), list_line(product, 0, "03.07", "PR0001") + "\n");
        EXPECT_THAT(commands("printer"), IsEmpty());
    }
}

TEST_F(SelectedDevices, NeighboursOfTheExcludedProductsGetCommands) {
    for (const unsigned int product : {0x3C74U, 0x3C7AU}) {
        set_bus({{.product = product}});
        EXPECT_EQ(listed({}), list_line(product, 0, "01.02", "PR0001") + "\n");
        EXPECT_THAT(commands("printer"), Not(IsEmpty()));
    }
}

TEST_F(SelectedDevices, OrdinaryDevicesBesideAreLeftAlone) {
    set_bus(bus_text({SimDevice{}}) +
            "[[device]]\nname = \"mouse\"\nvendor = 0x7A01\nproduct = 0x0001\n"
            "[[device.interface]]\nkind = \"mouse\"\n"
            "[[device]]\nname = \"stick\"\nvendor = 0x7AFF\nproduct = 0x0002\n"
            "[[device.interface]]\nkind = \"storage\"\n");
    EXPECT_EQ(listed({}), printer_1);
    for (const char* name : {"mouse", "stick"}) {
        EXPECT_THAT(record().class_requests(name), IsEmpty());
        EXPECT_THAT(record().of_kind(name, "claim"), IsEmpty());
        EXPECT_THAT(record().of_kind(name, "detach"), IsEmpty());
    }
}

TEST_F(SelectedDevices, DeviceWithoutSerialNumberIsListed) {
    SimDevice device;
    device.serial = "";
    set_bus({device});
    EXPECT_EQ(listed({"-s", "NO SERIAL NUMBER"}),
              list_line(0x3C35, 0, "01.02", "NO SERIAL NUMBER") + "\n");
}

TEST_F(SelectedDevices, ListShowsTypesAndBuildLevels) {
    SimDevice device;
    device.components = {{.level = "01.02", .build = 0x1A},
                         {.id = 1, .level = "02.10", .type = "configuration"},
                         {.id = 2, .level = "03.00", .type = "font"},
                         {.id = 3, .level = "04.01", .type = "unspecified"}};
    set_bus({device});
    EXPECT_EQ(listed({}),
              "PID: 3c35  COMP: 00  TYPE: FW   EC: 01.02.1a (SN='PR0001')\n"
              "PID: 3c35  COMP: 01  TYPE: CFG  EC: 02.10    (SN='PR0001')\n"
              "PID: 3c35  COMP: 02  TYPE: FNT  EC: 03.00    (SN='PR0001')\n"
              "PID: 3c35  COMP: 03  TYPE: UNK  EC: 04.01    (SN='PR0001')\n");
}

TEST_F(SelectedDevices, PlainListsBytesAreSwappedOnRequest) {
    SimDevice device;
    device.components = {{.level = "01.02"}, {.id = 1, .level = "03.04"}};
    device.interface_keys = "list = \"plain\"";
    set_bus({device});
    EXPECT_EQ(listed({"-o", "0"}), list_line(0x3C35, 0, "02.01", "PR0001") + "\n" +
                                       list_line(0x3C35, 1, "04.03", "PR0001") + "\n");
}

TEST_F(SelectedDevices, DeviceThatAnswersNoQueryIsListedWithItsUsbVersion) {
    SimDevice device;
    device.device_keys = "bcd = 0x0209";
    device.interface_keys = "list = \"none\"\ndevice_info = false\nec_level = false";
    set_bus({device});
    EXPECT_EQ(listed({}), list_line(0x3C35, 0, "02.09", "PR0001") + "\n");
}

TEST_F(SelectedDevices, DeviceWithoutListsShowsItsLevelAndComponentOneAsConfiguration) {
    SimDevice device;
    device.components = {{.level = "01.02"}, {.id = 1, .level = "03.04"}};
    device.interface_keys = "list = \"none\"";
    set_bus({device});
    EXPECT_EQ(listed({}),
              printer_1 + "PID: 3c35  COMP: 01  TYPE: CFG  EC: 03.04    (SN='PR0001')\n");
}

TEST_F(SelectedDevices, DeviceThatCannotBeOpenedIsLeftOut) {
    set_bus({SimDevice{}, {.name = "scanner", .product = 0x3C36, .serial = "SC0001"}},
            fault_text("printer", "open", "refuse", "times = \"always\""));
    EXPECT_EQ(listed({}), scanner);
}

TEST_F(SelectedDevices, DeviceWhoseInterfaceIsBusyIsLeftOut) {
    set_bus({SimDevice{}, {.name = "scanner", .product = 0x3C36, .serial = "SC0001"}},
            fault_text("printer", "claim", "busy", "times = \"always\""));
    EXPECT_EQ(listed({}), scanner);
}

TEST_F(SelectedDevices, DeviceWhoseDriverStaysIsLeftOut) {
    set_bus({SimDevice{}, {.name = "scanner", .product = 0x3C36, .serial = "SC0001"}},
            fault_text("printer", "detach", "refuse", "times = \"always\""));
    EXPECT_EQ(listed({}), scanner);
}

TEST_F(SelectedDevices, DeviceThatRefusesTheProbeIsLeftOut) {
    set_bus({SimDevice{}, {.name = "scanner", .product = 0x3C36, .serial = "SC0001"}},
            fault_text("printer", "set-report", "stall"));
    EXPECT_EQ(listed({}), scanner);
}
