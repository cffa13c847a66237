// Hubs and ports in the device paths.
#include "support/bus_test.h"

#include <gmock/gmock.h>

using testing::HasSubstr;

namespace {

class Hubs : public BusTest {
  protected:
    /// A printer on port 3 of a hub that hangs on port 2 of the root hub.
    Hubs() {
        set_bus(quick_timing() +
                "[[hub]]\nname = \"root\"\nbus = 1\nports = 4\n\n"
                "[[hub]]\nname = \"desk\"\nhub = \"root\"\nport = 2\nports = 4\n\n" +
                device_text({.device_keys = "hub = \"desk\"\nport = 3\naddress = 9"}));
    }
    void preload_hub_ports() { settings.preloads = {SIMULATION_DIRECTORY "/libzelfwsim-hubs.so"}; }
};

}  // namespace

TEST_F(Hubs, DevicePathNamesHubAndPort) {
    preload_hub_ports();
    const RunResult result = run({"-L", "-n", "2"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.log, HasSubstr("'//?/hid#vid_7a01&pid_3c35&mi_00&ec_0102#bus_01&dev_009"
                                      "#hub_02&port_03#usagepage_ff45&usage_a000'"));
}

TEST_F(Hubs, DevicePathHasNoPortWhereTheKernelTellsNone) {
    const RunResult result = run({"-L", "-n", "2"});
    EXPECT_EQ(result.exit_code, 0);
    // The hub number is then the count of hubs found before the device.
    EXPECT_THAT(result.log, HasSubstr("'//?/hid#vid_7a01&pid_3c35&mi_00&ec_0102#bus_01&dev_009"
                                      "#hub_02&port_00#usagepage_ff45&usage_a000'"));
}

TEST_F(Hubs, UpdatedDeviceKeepsItsPort) {
    preload_hub_ports();
    add_firmware("main.dat", {});
    const RunResult result = update({"-n", "2"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.log, HasSubstr("'//?/hid#vid_7a01&pid_3c35&mi_00&ec_0105#bus_01&dev_010"
                                      "#hub_02&port_03#usagepage_ff45&usage_a000'"));
}
