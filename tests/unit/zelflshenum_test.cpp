#include "usb/zelflshenum.h"

#include "support/fake_usb.h"
#include "support/log_capture.h"
#include "support/usbfs_double.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>

#include <cerrno>
#include <memory>
#include <string>

namespace {

using testing::ElementsAre;

class Enumeration : public testing::Test {
  protected:
    ~Enumeration() override {
        if (tree) {
            for (int i = 0; i < tree->numberOfHidDevices; ++i) {
                delete tree->getHidDevice(i);
            }
        }
    }
    USBENUM& build() {
        if (!tree) {
            tree = std::make_unique<USBENUM>();
        }
        EXPECT_EQ(tree->buildTreeInformation(), 0);
        return *tree;
    }
    std::vector<std::string> hid_paths() {
        std::vector<std::string> paths;
        for (int i = 0; i < tree->numberOfHidDevices; ++i) {
            paths.emplace_back(tree->getHidDevice(i)->DevicePath);
        }
        return paths;
    }
    // A device with HID interfaces of those strings; an empty one stands for no string.
    FakeUsbDevice& add(uint8_t bus, uint8_t address, const std::vector<std::string>& strings) {
        FakeUsbDevice& device = usb.add(bus, address, 0x7A01, 0x3C02);
        uint8_t index = 0;
        for (const std::string& text : strings) {
            FakeSetting setting;
            setting.number = index++;
            if (!text.empty()) {
                setting.string_index = static_cast<uint8_t>(10 + index);
                device.strings[setting.string_index] = string_descriptor(text);
            }
            device.configurations[0].interfaces.push_back({setting});
        }
        return device;
    }
    // Usage page and usage of one interface of that string, as "page:usage" in hexadecimal.
    std::string usage_of(const std::string& text) {
        add(1, 9, {text});
        const USBDEV& dev = *build().getDevice(0);
        char numbers[32];
        std::snprintf(numbers, sizeof numbers, "%x:%x",
                      static_cast<unsigned int>(dev.getUsagePage(0)),
                      static_cast<unsigned int>(dev.getUsage(0)));
        return numbers;
    }

    LogCapture log;
    FakeUsb usb;
    std::unique_ptr<USBENUM> tree;
};

constexpr const char flash_string[] = "Usage=A000 Usage Page=FF45";

}  // namespace

TEST_F(Enumeration, StartsEmpty) {
    const USBENUM empty;
    EXPECT_EQ(empty.numberOfDevices, 0);
    EXPECT_EQ(empty.numberOfHidDevices, 0);
    EXPECT_EQ(empty.hub_count, 0);
    EXPECT_EQ(empty.total_hubs, 0);
    EXPECT_EQ(usb.live_contexts, 1);
}

TEST_F(Enumeration, GivesHubAndPortOfADevice) {
    usb.add_hub(1, 1);
    usb.add_hub(2, 1);
    FakeUsbDevice& device = add(2, 17, {flash_string});
    make_flash_device(device);
    usbfs_add_hub(1, 1, {17, 0, 0, 0});
    usbfs_add_hub(2, 1, {0, 0, 17, 0});
    build();
    EXPECT_THAT(hid_paths(),
                ElementsAre("//?/hid#vid_7a01&pid_3c02&mi_00&ec_0123#bus_02&dev_017#hub_02&port_03"
                            "#usagepage_ff45&usage_a000"));
    EXPECT_STREQ(tree->getDevice(2)->DevicePath,
                 "//?/usb#vid_7a01&pid_3c02&ec_0123#bus_02&dev_017#hub_02&port_03");
    const USBHID& hid = *tree->getHidDevice(0);
    EXPECT_EQ(hid.VendorID, 0x7A01);
    EXPECT_EQ(hid.ProductID, 0x3C02);
    EXPECT_EQ(hid.UsagePage, 0xFF45);
    EXPECT_EQ(hid.Usage, 0xA000);
    EXPECT_EQ(hid.VersionNumber, 0x0123);
    EXPECT_EQ(hid.Cluster, 0);
    EXPECT_EQ(hid.Role, 0);
    EXPECT_EQ(hid.HubNumber, 2);
    EXPECT_EQ(hid.PortNumber, 3);
    EXPECT_EQ(hid.DeviceAddress, 17);
    EXPECT_STREQ(hid.SerialNumber, "SN-0042");
    EXPECT_EQ(tree->find_device_hub(2, 17), 2);
    EXPECT_EQ(tree->find_device_port(2, 17), 3);
    EXPECT_EQ(tree->find_device_hub(2, 18), -1);
    EXPECT_EQ(tree->find_device_port(3, 17), -1);
}

TEST_F(Enumeration, GivesNothingOutsideItsTables) {
    usb.add_hub(1, 1);
    add(1, 5, {""});
    build();
    for (const int index : {-1, 256, 1000}) {
        EXPECT_EQ(tree->getDevice(index), nullptr) << index;
        EXPECT_EQ(tree->getHidDevice(index), nullptr) << index;
    }
}

TEST_F(Enumeration, KeepsPortZeroAndCountsHubsForADeviceThatNoHubNames) {
    usb.add_hub(1, 1);
    add(1, 5, {""});
    usb.add_hub(1, 2);
    add(1, 6, {""});
    build();
    EXPECT_EQ(tree->getHidDevice(0)->HubNumber, 1);
    EXPECT_EQ(tree->getHidDevice(0)->PortNumber, 0);
    EXPECT_EQ(tree->getHidDevice(1)->HubNumber, 2);
}

TEST_F(Enumeration, TakesTheFirstHubAndPortThatMatch) {
    usb.add_hub(1, 1);
    usb.add_hub(1, 2);
    add(1, 5, {""});
    usbfs_add_hub(1, 1, {5, 5});
    usbfs_add_hub(1, 2, {5});
    build();
    EXPECT_EQ(tree->getHidDevice(0)->HubNumber, 1);
    EXPECT_EQ(tree->getHidDevice(0)->PortNumber, 1);
}

TEST_F(Enumeration, GivesAHubNoHidRecord) {
    FakeUsbDevice& hub = usb.add_hub(1, 1);
    hub.configurations[0].interfaces = {{FakeSetting{}}};
    usb.add_hub(1, 2);
    usbfs_add_hub(1, 1, {0, 2});
    build();
    EXPECT_EQ(tree->numberOfDevices, 2);
    EXPECT_EQ(tree->numberOfHubs, 2);
    EXPECT_EQ(tree->numberOfHidDevices, 0);
    const USBDEV& root = *tree->getDevice(0);
    EXPECT_EQ(root.hub, 1);
    EXPECT_EQ(root.hubNumber, 1);
    EXPECT_EQ(root.role[0], 1);
    EXPECT_STREQ(root.DevicePath, "//?/hub#vid_1d6b&pid_0002&ec_0123#bus_01&dev_001");
    EXPECT_EQ(tree->getDevice(1)->hubNumber, 1);
    EXPECT_EQ(tree->getDevice(1)->portNumber, 2);
    EXPECT_EQ(tree->hubs[1].hub_number, 2);
}

TEST_F(Enumeration, GivesEachInterfaceOfADeviceARecord) {
    FakeUsbDevice& device = add(1, 9, {"Usage=6 Usage Page=1", flash_string});
    device.descriptor.iSerialNumber = 3;
    device.strings[3] = string_descriptor("K7");
    build();
    EXPECT_THAT(hid_paths(),
                ElementsAre("//?/hid#vid_7a01&pid_3c02&mi_00&ec_0123#bus_01&dev_009#hub_00&port_00"
                            "#usagepage_0001&usage_0006",
                            "//?/hid#vid_7a01&pid_3c02&mi_01&ec_0123#bus_01&dev_009#hub_00&port_00"
                            "#usagepage_ff45&usage_a000"));
    EXPECT_STREQ(tree->getHidDevice(0)->SerialNumber, "K7");
    EXPECT_STREQ(tree->getHidDevice(1)->SerialNumber, "K7");
}

TEST_F(Enumeration, GivesAnInterfaceOfAnotherClassARecordOfZeros) {
    FakeUsbDevice& device = add(1, 9, {"", flash_string});
    device.configurations[0].interfaces[0][0].interface_class = LIBUSB_CLASS_MASS_STORAGE;
    device.configurations[0].interfaces[0][0].number = 4;
    build();
    ASSERT_EQ(tree->numberOfHidDevices, 2);
    EXPECT_THAT(hid_paths()[0], testing::HasSubstr("mi_00"));
    EXPECT_EQ(tree->getHidDevice(0)->Usage, 0);
}

TEST_F(Enumeration, ReadsAllAlternateSettingsAndConfigurations) {
    FakeUsbDevice& device = add(1, 9, {"", flash_string});
    FakeSetting second = device.configurations[0].interfaces[1][0];
    second.number = 7;
    device.configurations[0].interfaces[1][0].string_index = 0;
    device.configurations[0].interfaces[1].push_back(second);
    device.configurations.resize(2);
    device.configurations[1].interfaces = {{FakeSetting{}}};
    device.descriptor.bNumConfigurations = 2;
    build();
    ASSERT_EQ(tree->numberOfHidDevices, 1);
    EXPECT_EQ(tree->getDevice(0)->interface_number[1], 7);
    EXPECT_EQ(tree->getDevice(0)->usage[1], 0xA000);
    EXPECT_EQ(usb.live_configurations, 0);
}

TEST_F(Enumeration, KeepsTheUsageOfASettingThatAnotherWithoutStringFollows) {
    FakeUsbDevice& device = add(1, 9, {flash_string});
    FakeSetting second = device.configurations[0].interfaces[0][0];
    second.string_index = 0;
    second.number = 5;
    device.configurations[0].interfaces[0].push_back(second);
    build();
    EXPECT_EQ(tree->getDevice(0)->usage[0], 0xA000);
    EXPECT_EQ(tree->getDevice(0)->interface_number[0], 5);
}

TEST_F(Enumeration, GivesAnInterfaceWhoseStringCannotBeReadNoUsage) {
    FakeUsbDevice& device = add(1, 9, {flash_string});
    FakeSetting second = device.configurations[0].interfaces[0][0];
    second.string_index = 99;
    device.configurations[0].interfaces[0].push_back(second);
    build();
    ASSERT_EQ(tree->numberOfHidDevices, 1);
    EXPECT_EQ(tree->getHidDevice(0)->Usage, 0);
    EXPECT_EQ(tree->getHidDevice(0)->UsagePage, 0);
}

TEST_F(Enumeration, CountsNoHubWhoseDescriptorCannotBeRead) {
    usb.add_hub(1, 1).descriptor_rc = -5;
    usb.add_hub(1, 2);
    add(1, 9, {""});
    usbfs_add_hub(1, 1, {9});
    usbfs_add_hub(1, 2, {0, 9});
    build();
    EXPECT_EQ(tree->hub_count, 1);
    EXPECT_EQ(tree->getHidDevice(0)->HubNumber, 1);
    EXPECT_EQ(tree->getHidDevice(0)->PortNumber, 2);
}

TEST_F(Enumeration, ForgetsTheHubsOfAnEarlierRun) {
    usb.add_hub(1, 1);
    add(1, 9, {""});
    usbfs_add_hub(1, 1, {9});
    build();
    ASSERT_EQ(tree->getHidDevice(0)->PortNumber, 1);
    usb.devices.pop_front();
    build();
    EXPECT_EQ(tree->hub_count, 0);
    EXPECT_EQ(tree->getHidDevice(0)->HubNumber, 0);
    EXPECT_EQ(tree->getHidDevice(0)->PortNumber, 0);
}

TEST_F(Enumeration, ReadsTheSerialNumberOfAHubToo) {
    FakeUsbDevice& hub = usb.add_hub(1, 1);
    hub.descriptor.iSerialNumber = 3;
    hub.strings[3] = string_descriptor("H1");
    usb.add_hub(1, 2);
    build();
    EXPECT_STREQ(tree->getDevice(0)->serialNumber, "H1");
    EXPECT_STREQ(tree->getDevice(1)->serialNumber, "NO SERIAL NUMBER");
}

TEST_F(Enumeration, LogsAConfigurationThatCannotBeReadAndGoesOn) {
    FakeUsbDevice& device = add(1, 9, {flash_string});
    device.config_rc = -1;
    add(1, 10, {flash_string});
    build();
    EXPECT_EQ(log.text(), "3:7a01:3c02 - GetConfigDescriptor failed, rc=-1\n");
    EXPECT_EQ(tree->numberOfDevices, 2);
    EXPECT_EQ(tree->numberOfHidDevices, 1);
}

TEST_F(Enumeration, ReadsAConfigurationOnlyWhenTheLibraryGivesOne) {
    add(1, 9, {flash_string});
    p_libusb_get_config_descriptor = [](libusb_device*, uint8_t,
                                        libusb_config_descriptor** config) {
        *config = nullptr;
        return 0;
    };
    build();
    p_libusb_get_config_descriptor = [](libusb_device*, uint8_t,
                                        libusb_config_descriptor** config) {
        *config =
            reinterpret_cast<libusb_config_descriptor*>(1);  // what the failed call left there
        return -5;
    };
    build();
    EXPECT_EQ(log.text(),
              "3:7a01:3c02 - GetConfigDescriptor failed, rc=0\n"
              "3:7a01:3c02 - GetConfigDescriptor failed, rc=-5\n");
}

TEST_F(Enumeration, SkipsADeviceThatCannotBeOpened) {
    add(1, 9, {flash_string}).open_rc = -3;
    add(1, 10, {flash_string});
    build();
    EXPECT_EQ(log.text(), "3:libusb_open() failed, rc=-3\n3:OpenDevice failed, rc=-3\n");
    EXPECT_EQ(tree->numberOfDevices, 1);
    EXPECT_EQ(tree->getHidDevice(0)->DeviceAddress, 10);
}

TEST_F(Enumeration, ClosesADeviceWithoutDescriptorBeforeTheNext) {
    add(1, 9, {flash_string}).descriptor_rc = -5;
    add(1, 10, {flash_string});
    build();
    EXPECT_EQ(log.count("3:OpenDevice failed, rc=-5\n"), 1);
    EXPECT_THAT(usb.calls(), ElementsAre("open 9", "close 9", "open 10", "close 10"));
    EXPECT_EQ(tree->numberOfDevices, 1);
}

TEST_F(Enumeration, LogsADescriptorThatIsGoneAfterOpening) {
    add(1, 9, {flash_string});
    static int answers = 0;
    static PLIBUSB_GET_DEVICE_DESCRIPTOR real = p_libusb_get_device_descriptor;
    // One answer for the hubs, one for opening, then none.
    p_libusb_get_device_descriptor = [](libusb_device* dev, libusb_device_descriptor* descriptor) {
        return ++answers <= 2 ? real(dev, descriptor) : int{LIBUSB_ERROR_NO_DEVICE};
    };
    build();
    EXPECT_EQ(log.text(), "3:GetDeviceDescriptor failed, rc=-4\n");
    EXPECT_EQ(tree->numberOfDevices, 0);
    EXPECT_EQ(usb.live_handles, 1);
    tree.reset();
    EXPECT_EQ(usb.live_handles, 0);
}

TEST_F(Enumeration, GivesBackEverything) {
    usb.add_hub(1, 1);
    add(1, 9, {flash_string});
    build();
    EXPECT_EQ(usb.live_lists, 0);
    EXPECT_EQ(usb.live_handles, 0);
    EXPECT_EQ(usb.live_configurations, 0);
    EXPECT_EQ(usb.devices.back().references, 0);
}

TEST_F(Enumeration, NeitherWalksNorFreesAListThatLibusbCouldNotGive) {
    add(1, 9, {flash_string});
    usb.list_rc = LIBUSB_ERROR_NO_MEM;
    build();
    EXPECT_EQ(tree->numberOfDevices, 0);
    EXPECT_EQ(usb.live_lists, 0);
    EXPECT_THAT(usb.calls(), ElementsAre());
}

TEST_F(Enumeration, PassesOverANullEntryOfTheList) {
    add(1, 9, {flash_string});
    static libusb_device* list[] = {nullptr, nullptr, nullptr};
    list[1] = as_libusb(usb.devices.front());
    p_libusb_get_device_list = [](libusb_context*, libusb_device*** given) -> ssize_t {
        *given = list;
        return 2;
    };
    p_libusb_free_device_list = [](libusb_device** given, int) { EXPECT_EQ(given, list); };
    build();
    ASSERT_EQ(tree->numberOfDevices, 1);
    EXPECT_EQ(tree->getHidDevice(0)->DeviceAddress, 9);
}

TEST_F(Enumeration, FreesAnEmptyList) {
    build();
    EXPECT_EQ(tree->numberOfDevices, 0);
    EXPECT_EQ(usb.live_lists, 0);
}

TEST_F(Enumeration, GivesTheSameListsTwiceAndForgetsTheFirstRecords) {
    usb.add_hub(1, 1);
    add(1, 9, {flash_string, ""});
    usbfs_add_hub(1, 1, {9});
    build();
    const auto first = hid_paths();
    build();
    EXPECT_EQ(hid_paths(), first);
    EXPECT_EQ(tree->numberOfDevices, 2);
    EXPECT_EQ(tree->numberOfHubs, 1);
    usb.devices.pop_back();
    build();
    EXPECT_EQ(tree->numberOfHidDevices, 0);
    EXPECT_EQ(tree->usbhid[0], nullptr);
    EXPECT_EQ(tree->usbdev[1], nullptr);
}

TEST_F(Enumeration, LeavesTheRecordsHandedOutToTheirNewOwner) {
    add(1, 9, {flash_string});
    const std::unique_ptr<USBHID> record(build().getHidDevice(0));
    tree.reset();
    EXPECT_EQ(record->Usage, 0xA000);
}

TEST_F(Enumeration, GivesNoRecordOutsideTheLists) {
    add(1, 9, {flash_string});
    build();
    EXPECT_EQ(tree->getDevice(1), nullptr);
    EXPECT_EQ(tree->getDevice(-1), nullptr);
    EXPECT_EQ(tree->getHidDevice(1), nullptr);
    EXPECT_EQ(tree->getHidDevice(-1), nullptr);
}

TEST_F(Enumeration, CountsTheDevicesOfAProduct) {
    add(1, 9, {});
    add(1, 10, {});
    usb.add(1, 11, 0x7A01, 0x3C03);
    build();
    EXPECT_EQ(tree->getTotalNumberOfADevice(0x3C02), 2);
    EXPECT_EQ(tree->getTotalNumberOfADevice(0x3C03), 1);
    EXPECT_EQ(tree->getTotalNumberOfADevice(0x3C04), 0);
}

TEST_F(Enumeration, IgnoresInterfacesPastTheTwelfth) {
    add(1, 9, std::vector<std::string>(32, flash_string));
    build();
    EXPECT_EQ(tree->getDevice(0)->numberOfInterfaces, 32);
    EXPECT_EQ(tree->numberOfHidDevices, 12);
    EXPECT_THAT(hid_paths()[11], testing::HasSubstr("mi_11"));
}

TEST_F(Enumeration, SurvivesInterfacesWithoutSettings) {
    add(1, 9, {}).configurations[0].interfaces = {{}, {}};
    build();
    EXPECT_EQ(tree->numberOfHidDevices, 2);
}

TEST_F(Enumeration, Keeps256DevicesAndRecords) {
    for (int i = 0; i < 300; ++i) {
        add(static_cast<uint8_t>(1 + i / 100), static_cast<uint8_t>(i % 100 + 1), {"", ""});
    }
    build();
    EXPECT_EQ(tree->numberOfDevices, 256);
    EXPECT_EQ(tree->numberOfHidDevices, 256);
}

TEST_F(Enumeration, Keeps128Hubs) {
    for (int i = 0; i < 130; ++i) {
        usb.add_hub(static_cast<uint8_t>(1 + i / 100), static_cast<uint8_t>(i % 100 + 1));
    }
    build();
    EXPECT_EQ(tree->hub_count, 128);
    EXPECT_EQ(tree->numberOfHubs, 130);
    EXPECT_EQ(tree->hubs[127].hub_number, 128);
}

TEST_F(Enumeration, CutsALongSerialNumber) {
    FakeUsbDevice& device = add(1, 9, {""});
    device.descriptor.iSerialNumber = 3;
    Bytes serial(254, 'x');
    for (size_t i = 3; i < serial.size(); i += 2) {
        serial[i] = 0;
    }
    serial[0] = 254;
    serial[1] = 3;
    device.strings[3] = serial;
    build();
    EXPECT_EQ(std::string(tree->getHidDevice(0)->SerialNumber), std::string(126, 'x'));
}

// --- usage in interface strings ---

TEST_F(Enumeration, ReadsUsageBeforeUsagePage) {
    EXPECT_EQ(usage_of("Usage=A000 Usage Page=FF45"), "ff45:a000");
}

TEST_F(Enumeration, ReadsUsageWithoutUsagePage) {
    EXPECT_EQ(usage_of("Usage=A000"), "0:a000");
}

TEST_F(Enumeration, ReadsPageZeroFromAJoinedNumber) {
    EXPECT_EQ(usage_of("Usage=FF45A000"), "0:ff45a000");
}

TEST_F(Enumeration, FindsTheUsageOfUsagePageWhenThatComesFirst) {
    EXPECT_EQ(usage_of("Usage Page=FF45 Usage=A000"), "ff45:0");
}

TEST_F(Enumeration, TakesUsagePageWithoutBlankForAUsageWithoutNumber) {
    EXPECT_EQ(usage_of("UsagePage=FF45 Usage=A000"), "0:0");
}

TEST_F(Enumeration, SkipsAnyRunOfSeparators) {
    EXPECT_EQ(usage_of("Flash Usage = = 0xA000, Usage Page  ==  0xff45"), "ff45:a000");
}

TEST_F(Enumeration, ReadsANumberRightBehindTheWord) {
    EXPECT_EQ(usage_of("UsageA000"), "0:a000");
}

TEST_F(Enumeration, ReadsZeroWhereNoNumberFollows) {
    EXPECT_EQ(usage_of("Usage = "), "0:0");
}

TEST_F(Enumeration, ReadsZeroAtTheEndOfTheText) {
    EXPECT_EQ(usage_of("Usage=A000 Usage Page="), "0:a000");
}

TEST_F(Enumeration, DoesNotTakeAnXAtTheEndIntoANumber) {
    EXPECT_EQ(usage_of("Usage=0x"), "0:0");
}

TEST_F(Enumeration, CutsAnAbsurdNumberTo32Bits) {
    EXPECT_EQ(usage_of("Usage=" + std::string(80, 'F')), "0:ffffffff");
    EXPECT_EQ(tree->getHidDevice(0)->Usage, 0xFFFF);
}

TEST_F(Enumeration, ReadsNothingFromAStringWithoutTheWord) {
    EXPECT_EQ(usage_of("Keyboard"), "0:0");
}

// --- hub ports ---

TEST(HubPorts, AreAskedOfTheHubDriver) {
    usbfs_add_hub(1, 2, {7, 0, 9});
    usb_hub_portinfo ports{};
    get_hub_ports(1, 2, &ports);
    EXPECT_EQ(ports.numports, 3);
    EXPECT_EQ(ports.port[0], 7);
    EXPECT_EQ(ports.port[2], 9);
    const auto requests = usbfs_requests();
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(requests[0].request, sizeof(void*) == 4 ? 0xC00C5512U : 0xC0105512U);
    EXPECT_EQ(requests[0].interface_number, 0);
    EXPECT_EQ(requests[0].inner_request, 0x80805513U);
    EXPECT_EQ(requests[0].open_flags & O_ACCMODE, O_RDWR);
    EXPECT_EQ(usbfs_open_nodes(), 0);
}

TEST(HubPorts, StayEmptyWithoutANode) {
    const LogCapture log;
    usb_hub_portinfo ports{};
    ports.numports = 9;
    get_hub_ports(1, 2, &ports);
    EXPECT_EQ(ports.numports, 0);
    EXPECT_EQ(log.text(), "");
}

TEST(HubPorts, LogAFailedRequest) {
    const LogCapture log;
    usbfs_add_hub(1, 2, {7}, EIO);
    usb_hub_portinfo ports{};
    get_hub_ports(1, 2, &ports);
    EXPECT_EQ(ports.numports, 0);
    EXPECT_EQ(log.text(),
              "3:get_hub_ports ioctl(USBDEVFS_IOCTL) errno=" + std::to_string(EIO) + "\n");
    EXPECT_EQ(usbfs_open_nodes(), 0);
}

TEST(HubPorts, AreSilentAboutAKernelWithoutTheRequest) {
    const LogCapture log;
    usbfs_add_hub(1, 2, {7}, ENOSYS);
    usb_hub_portinfo ports{};
    get_hub_ports(1, 2, &ports);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(usbfs_requests().size(), 1U);
}

TEST_F(Enumeration, LooksOnlyAtPortsThatTheAnswerHolds) {
    usb.add_hub(1, 1);
    add(1, 200, {""});
    usbfs_add_hub(1, 1, {1, 2});
    usbfs_claim_ports(255);
    build();
    EXPECT_EQ(tree->find_device_port(1, 200), -1);
    EXPECT_EQ(tree->find_device_port(1, 2), 2);
}

// --- hub names ---

TEST_F(Enumeration, NumbersHubNamesByTheirPosition) {
    USBENUM names;
    EXPECT_EQ(names.add_hub(0, "first"), 0);
    EXPECT_EQ(names.add_hub(0, "second"), 1);
    EXPECT_EQ(names.find_hub_number("second"), 1);
    EXPECT_EQ(names.find_hub_number("secon"), -1);
}

TEST_F(Enumeration, Keeps30HubNames) {
    USBENUM names;
    for (int i = 0; i < 30; ++i) {
        EXPECT_EQ(names.add_hub(0, std::to_string(i).c_str()), i);
    }
    EXPECT_EQ(names.add_hub(0, "30"), -1);
    EXPECT_EQ(names.total_hubs, 30);
    EXPECT_EQ(names.find_hub_number("30"), -1);
}
