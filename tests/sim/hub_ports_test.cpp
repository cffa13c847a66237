// What the kernel says about hub ports.
#include "hubs/hub_ports.h"

#include "model/device/bus.h"
#include "support/bench.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

constexpr const char* one_bus = R"(
[[hub]]
name = "root"
bus = 3
ports = 2
[[hub]]
name = "desk"
hub = "root"
port = 2
ports = 4
[[device]]
name = "mouse"
hub = "desk"
port = 3
vendor = 1
product = 2
[[device.interface]]
kind = "mouse"
[[fault]]
device = "mouse"
at = "control"
action = "unplug"
replug_ms = 60000
)";

std::string query(const std::string& path, const std::string& before = "") {
    return run(before + "env LD_PRELOAD=\"$ZELFWSIM_PRELOAD\" " ZELFWSIM_HUB_QUERY " " + path)
        .output;
}

class HubPorts : public testing::Test {
  protected:
    void SetUp() override {
        workspace.use_bus(one_bus);
        // A sanitizer's own library must come first.
        const std::string sanitizer =
            run("ldd " ZELFWSIM_HUB_QUERY " | grep -oE '/[^ ]*lib[at]san[^ ]*'").output;
        const std::string first =
            sanitizer.empty() ? "" : sanitizer.substr(0, sanitizer.find('\n')) + ":";
        setenv("ZELFWSIM_PRELOAD", (first + ZELFWSIM_HUBS).c_str(), 1);
    }

    Workspace workspace;
};

}  // namespace

TEST_F(HubPorts, AreAnsweredForTheHubsOfTheBusFile) {
    EXPECT_EQ(query("/proc/bus/usb/003/001"), "3: 0 2\n");
    EXPECT_EQ(query("/proc/bus/usb/003/002"), "5: 0 0 3 0\n");
}

TEST_F(HubPorts, AreNotAnsweredByOtherDevices) {
    EXPECT_EQ(query("/proc/bus/usb/003/003"), "ioctl 25\n");
    EXPECT_EQ(query("/proc/bus/usb/003/009"), "open 2\n");
}

TEST_F(HubPorts, FollowTheStateDirectory) {
    {
        zelfsim::Bus bus(zelfsim::BusFiles{workspace.bus(), workspace.state(), ""});
        bus.find("mouse")->control({0x80, 0, 0, 0, 2}, {}, std::chrono::seconds(1), zelfsim::now());
    }
    EXPECT_EQ(query("/proc/bus/usb/003/002"), "5: 0 0 0 0\n");
}

TEST_F(HubPorts, LeaveOtherFilesAlone) {
    EXPECT_EQ(query("/dev/null"), "ioctl 25\n");
    EXPECT_EQ(query("/does/not/exist"), "open 2\n");
    EXPECT_EQ(query("/proc/bus/usb/003/001", "env -u ZELFWSIM_BUS "), "open 2\n");
}

TEST(DeviceNode, IsReadFromItsPath) {
    const auto node = zelfsim::parse_node("/proc/bus/usb/012/127");
    ASSERT_TRUE(node);
    EXPECT_EQ(node->bus, 12U);
    EXPECT_EQ(node->address, 127U);
    for (const char* path :
         {"/proc/bus/usb/012/12", "/proc/bus/usb/012/12x", "/proc/bus/usb/0120127",
          "/proc/bus/usb/012/1270", "/dev/bus/usb/012/127", ""}) {
        EXPECT_FALSE(zelfsim::parse_node(path)) << path;
    }
    EXPECT_FALSE(zelfsim::parse_node(nullptr));
}
