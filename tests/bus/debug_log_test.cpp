// What the log tells at debug level about queries and updates.
#include "support/bus_test.h"

#include <gmock/gmock.h>

using testing::ContainsRegex;
using testing::HasSubstr;

namespace {

class DebugLog : public BusTest {
  protected:
    /// A printer whose extended list can't be used and whose plain list is rejected.
    void set_up_printer(const std::string& interface_keys) {
        SimDevice device;
        device.components = {{}, {.id = 1}};
        device.interface_keys = interface_keys;
        set_bus({device});
    }
    std::string debug_log(std::vector<std::string> arguments) {
        arguments.insert(arguments.end(), {"-n", "2"});
        return run(arguments).log;
    }
};

}  // namespace

TEST_F(DebugLog, NamesTheQueriesOfADeviceWithExtendedList) {
    set_up_printer("");
    const std::string log = debug_log({"-L"});
    EXPECT_THAT(log, HasSubstr("3:Getting components for 3c35 (index=0)\n"));
    EXPECT_THAT(log, HasSubstr("3:Get device information for ProductID 3c35\n"));
    EXPECT_THAT(log, HasSubstr("3:Get device EC level for ProductID 3c35\n"));
    EXPECT_THAT(log, HasSubstr("3:Read extended component list for 3c35\n"));
    EXPECT_THAT(log, ContainsRegex("3:0: close_device_after_use: hThread=0x[0-9a-f]+\n"));
}

TEST_F(DebugLog, NamesTheQueriesOfADeviceWithoutLists) {
    set_up_printer("list = \"none\"");
    const std::string log = debug_log({"-L"});
    EXPECT_THAT(log, HasSubstr("3:Get component information (index=0)\n"));
    EXPECT_THAT(log, HasSubstr("3:Add components to table for 3c35\n"));
    EXPECT_THAT(log,
                HasSubstr("3:send_command to 3c35 returned rc=2 status[0]=00 last_status[0]=80\n"));
    EXPECT_THAT(log, HasSubstr("3:Getting component 1 version for 3c35\n"));
}

TEST_F(DebugLog, NamesFileAndDeviceOfAnUpdate) {
    set_up_printer("");
    add_firmware("boot.dat", {.component = 1});
    const std::string log = debug_log({"-U", "-p", firmware_directory()});
    EXPECT_THAT(log, HasSubstr("3:using file '" + firmware_path("boot.dat") + "'\n"));
    EXPECT_THAT(log, ContainsRegex("3:Opening '//\\?/hid#vid_7a01&pid_3c35[^']*' component 1 with "
                                   "ec_level=102\n"));
    EXPECT_THAT(log, ContainsRegex("3:'//\\?/hid#vid_7a01&pid_3c35[^']*' hiddev=0x[0-9a-f]+\n"));
    EXPECT_THAT(log, HasSubstr("3:Getting components for 3c35\n"));
}

TEST_F(DebugLog, StartsWithTheWholeBanner) {
    set_up_printer("");
    EXPECT_EQ(run({"-V"}).console,
              "Quenta Firmware Update Utility\n\n"
              "Version 1.1.3 (i386)\n"
              "Copyright (c) 2026 the zelfwupdate project\n"
              "Released under the MIT License\n");
}
