#include "usb/flshusbintf.h"

#include "support/fake_usb.h"
#include "support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using testing::ElementsAre;

class UsbInterface : public testing::Test {
  protected:
    int open(const std::string& path) { return intf().OpenDevice(std::string(path).data()); }
    USBINTF& intf() {
        if (!object) {
            object = std::make_unique<USBINTF>();
        }
        return *object;
    }
    FakeUsbDevice& flash_device() {
        FakeUsbDevice& device = usb.add(3, 17, 0x7A01, 0x3C02);
        make_flash_device(device);
        return device;
    }
    // A flash device, open by its path and claimed.
    FakeUsbDevice& claim(FakeUsbDevice& device) {
        EXPECT_EQ(open(flash_path(device)), 0);
        EXPECT_EQ(intf().ClaimInterface(0), 0);
        return device;
    }
    std::string read_string(const Bytes& descriptor, int length = 255) {
        usb.devices.front().strings[9] = descriptor;
        Bytes buffer(256, 0xEE);
        string_result = intf().GetStringDescriptorAscii(9, buffer.data(), length);
        return string_result < 1 ? "" : reinterpret_cast<const char*>(buffer.data());
    }

    LogCapture log;
    FakeUsb usb;
    std::unique_ptr<USBINTF> object;
    int string_result = 0;
};

}  // namespace

TEST_F(UsbInterface, StartsClosedWithAContextOfItsOwn) {
    EXPECT_EQ(intf().initialized, 1);
    EXPECT_EQ(usb.live_contexts, 1);
    EXPECT_EQ(intf().handle, nullptr);
    EXPECT_EQ(intf().intfnum, 0xBAD);
    EXPECT_EQ(intf().EndpointIndex, 0);
    EXPECT_EQ(intf().GetVendorID(), 0);
    EXPECT_STREQ(intf().DevicePath, "");
}

TEST_F(UsbInterface, GivesBackAllThatItOpened) {
    claim(flash_device());
    object.reset();
    EXPECT_EQ(usb.live_contexts, 0);
    EXPECT_EQ(usb.live_handles, 0);
    EXPECT_EQ(usb.live_lists, 0);
    EXPECT_EQ(usb.live_configurations, 0);
    EXPECT_EQ(usb.devices.front().references, 0);
}

TEST_F(UsbInterface, WithoutAContextEverythingIsRefusedAndNothingFreed) {
    usb.init_rc = -1;
    EXPECT_EQ(intf().initialized, 0);
    EXPECT_EQ(open(flash_path(flash_device())), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf().OpenDevice(0x7A01, 0x3C02), LIBUSB_ERROR_INVALID_PARAM);
    intf().SetDebugLevel(3);
    object.reset();
    EXPECT_EQ(usb.live_contexts, 0);
    EXPECT_THAT(usb.calls(), ElementsAre());
}

TEST(UsbInterfaceUnbound, StaysClosedWhenNoLibraryWasBound) {
    USBINTF intf;
    EXPECT_EQ(intf.initialized, 0);
    EXPECT_EQ(intf.OpenDevice(std::string("//?/hid#bus_01&dev_001").data()),
              LIBUSB_ERROR_INVALID_PARAM);
}

TEST_F(UsbInterface, GivesADebugLevelToLibusbOnlyWhenItChanges) {
    intf().SetDebugLevel(0);
    intf().SetDebugLevel(3);
    intf().SetDebugLevel(3);
    EXPECT_THAT(usb.calls(), ElementsAre("debug level 3"));
}

TEST_F(UsbInterface, RefusesEveryOperationOnAClosedDevice) {
    int number = 0;
    unsigned char byte = 0;
    libusb_config_descriptor* config = nullptr;
    libusb_device_descriptor descriptor{};
    EXPECT_EQ(intf().GetDevice(), nullptr);
    EXPECT_EQ(intf().GetConfiguration(&number), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf().SetConfiguration(1), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf().SetInterfaceAltSetting(1), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf().KernelDriverActive(0), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf().DetachKernelDriver(0), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf().ClearHalt(0x81), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf().ResetDevice(), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf().GetDeviceDescriptor(&descriptor), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf().GetActiveConfigDescriptor(&config), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf().GetConfigDescriptor(0, &config), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf().GetDescriptor(1, 0, &byte, 1), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf().GetStringDescriptor(1, 0x409, &byte, 1), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf().ControlTransfer(0x80, 6, 0, 0, &byte, 1, 10), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf().BulkTransfer(0x81, &byte, 1, &number, 10), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf().InterruptTransfer(0x81, &byte, 1, &number, 10), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf().ClaimInterface(0), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf().ReleaseInterface(0), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf().GetUsbConfig(), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf().GetFlashInterface(), 0xBAD);
    EXPECT_EQ(usb.null_handles, 0);
    EXPECT_THAT(usb.calls(), ElementsAre());
}

TEST_F(UsbInterface, CallsTheLibusbFunctionOfTheSameMeaning) {
    claim(flash_device());
    libusb_device* const dev = as_libusb(usb.devices.front());
    const size_t before = usb.calls().size();
    int number = 0;
    EXPECT_EQ(intf().GetDevice(), dev);
    EXPECT_EQ(intf().GetConfiguration(&number), 0);
    EXPECT_EQ(number, 1);
    EXPECT_EQ(intf().SetConfiguration(2), 0);
    EXPECT_EQ(intf().SetInterfaceAltSetting(1), 0);
    EXPECT_EQ(intf().setting_number, 1);
    EXPECT_EQ(intf().KernelDriverActive(5), 0);
    EXPECT_EQ(intf().DetachKernelDriver(6), 0);
    EXPECT_EQ(intf().ClearHalt(0x81), 0);
    EXPECT_EQ(intf().ResetDevice(), 0);
    EXPECT_EQ(intf().GetMaxPacketSize(dev, 2), 10);
    EXPECT_EQ(intf().ReferenceDevice(dev), dev);
    EXPECT_EQ(usb.devices.front().references, 1);
    intf().UnreferenceDevice(dev);
    EXPECT_EQ(usb.devices.front().references, 0);
    auto calls = usb.calls();
    calls.erase(calls.begin(), calls.begin() + static_cast<int>(before));
    EXPECT_THAT(calls, ElementsAre("get configuration", "set configuration 2", "setting 0/1",
                                   "driver active 5", "detach 6", "clear halt 129", "reset"));
}

TEST_F(UsbInterface, GivesConfigurationsByIndexAndValueOfTheOpenDevice) {
    claim(flash_device());
    libusb_config_descriptor* by_index = nullptr;
    libusb_config_descriptor* by_value = nullptr;
    ASSERT_EQ(intf().GetConfigDescriptor(0, &by_index), 0);
    ASSERT_EQ(intf().GetConfigDescriptorByValue(intf().GetDevice(), 1, &by_value), 0);
    EXPECT_EQ(by_index->bNumInterfaces, 1);
    EXPECT_EQ(by_value->bNumInterfaces, 1);
    EXPECT_EQ(usb.live_configurations, 3);
    intf().FreeConfigDescriptor(by_index);
    intf().FreeConfigDescriptor(by_value);
    EXPECT_EQ(usb.live_configurations, 1);
    EXPECT_LT(intf().GetConfigDescriptor(1, &by_index), 0);
}

TEST_F(UsbInterface, NoSettingIsChosenWithoutAClaimedInterface) {
    ASSERT_EQ(open(flash_path(flash_device())), 0);
    EXPECT_EQ(intf().SetInterfaceAltSetting(1), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf().setting_number, 0);
}

TEST_F(UsbInterface, KeepsTheSettingNumberWhenTheSettingIsRefused) {
    claim(flash_device());
    p_libusb_set_interface_alt_setting = [](libusb_device_handle*, int, int) {
        return int{LIBUSB_ERROR_PIPE};
    };
    EXPECT_EQ(intf().SetInterfaceAltSetting(1), LIBUSB_ERROR_PIPE);
    EXPECT_EQ(intf().setting_number, 0);
}

TEST_F(UsbInterface, ClearsItsDescriptorBeforeItIsReadAgain) {
    FakeUsbDevice& device = claim(flash_device());
    ASSERT_EQ(intf().descriptor.idVendor, 0x7A01);
    device.descriptor_rc = -5;
    EXPECT_EQ(intf().GetDeviceInformation(as_libusb(device)), -5);
    EXPECT_EQ(intf().descriptor.idVendor, 0);
}

TEST_F(UsbInterface, AsksForDescriptorsWithAStandardRequest) {
    claim(flash_device());
    Bytes buffer(18);
    usb.controls.clear();
    intf().GetDescriptor(2, 1, buffer.data(), 18);
    intf().GetStringDescriptor(3, 0x0409, buffer.data(), 18);
    ASSERT_EQ(usb.controls.size(), 2U);
    EXPECT_EQ(usb.controls[0].type, 0x80);
    EXPECT_EQ(usb.controls[0].request, 6);
    EXPECT_EQ(usb.controls[0].value, 0x0201);
    EXPECT_EQ(usb.controls[0].index, 0);
    EXPECT_EQ(usb.controls[0].length, 18);
    EXPECT_EQ(usb.controls[0].timeout, 1000U);
    EXPECT_EQ(usb.controls[1].type, 0x80);
    EXPECT_EQ(usb.controls[1].request, 6);
    EXPECT_EQ(usb.controls[1].value, 0x0303);
    EXPECT_EQ(usb.controls[1].index, 0x0409);
    EXPECT_EQ(usb.controls[1].timeout, 1000U);
}

// --- by libusb device ---

TEST_F(UsbInterface, OpensADeviceOfTheListWithoutItsConfiguration) {
    FakeUsbDevice& device = flash_device();
    ASSERT_EQ(intf().OpenDevice(as_libusb(device)), 0);
    EXPECT_EQ(intf().GetVendorID(), 0x7A01);
    EXPECT_EQ(intf().GetProductID(), 0x3C02);
    EXPECT_EQ(intf().GetVersionNumber(), 0x0123);
    EXPECT_EQ(intf().GetBusNumber(), 3);
    EXPECT_EQ(intf().GetAddress(), 17);
    EXPECT_EQ(intf().GetDeviceType(), DEVICE_TYPE_NONE);
    EXPECT_EQ(usb.live_configurations, 0);
    EXPECT_EQ(intf().OpenDevice(as_libusb(device)), LIBUSB_ERROR_INVALID_PARAM);
}

TEST_F(UsbInterface, KnowsAHubByItsClass) {
    ASSERT_EQ(intf().OpenDevice(as_libusb(usb.add_hub(1, 1))), 0);
    EXPECT_EQ(intf().GetDeviceType(), DEVICE_TYPE_HUB);
}

TEST_F(UsbInterface, LogsADeviceThatCannotBeOpened) {
    FakeUsbDevice& device = flash_device();
    device.open_rc = -3;
    EXPECT_EQ(intf().OpenDevice(as_libusb(device)), -3);
    EXPECT_EQ(intf().handle, nullptr);
    EXPECT_EQ(log.text(), "3:libusb_open() failed, rc=-3\n");
}

TEST_F(UsbInterface, LeavesADeviceOpenWhoseDescriptorCannotBeRead) {
    FakeUsbDevice& device = flash_device();
    device.descriptor_rc = -5;
    EXPECT_EQ(intf().OpenDevice(as_libusb(device)), -5);
    EXPECT_NE(intf().handle, nullptr);
    EXPECT_EQ(log.text(), "3:GetDeviceInformation() failed, rc=-5\n");
}

// --- by IDs ---

TEST_F(UsbInterface, OpensADeviceByItsIds) {
    flash_device();
    EXPECT_EQ(intf().OpenDevice(0x7A01, 0x3C03), -4);
    EXPECT_EQ(intf().OpenDevice(0x7A01, 0x3C02), 0);
    EXPECT_EQ(usb.live_configurations, 1);
    EXPECT_EQ(intf().OpenDevice(0x7A01, 0x3C02), LIBUSB_ERROR_INVALID_PARAM);
}

TEST_F(UsbInterface, OpenByIdsFailsWithoutADescriptor) {
    flash_device().descriptor_rc = -5;
    EXPECT_EQ(intf().OpenDevice(0x7A01, 0x3C02), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf().intfnum, 0xBAD);
}

TEST_F(UsbInterface, OpenByIdsDoesWithoutAConfiguration) {
    flash_device().config_rc = -5;
    EXPECT_EQ(intf().OpenDevice(0x7A01, 0x3C02), 0);
    EXPECT_NE(intf().handle, nullptr);
    EXPECT_EQ(intf().config_descriptor_retrieved, 0);
}

TEST_F(UsbInterface, ForgetsItsInterfaceWhateverComesOfAnOpenByIds) {
    claim(flash_device());
    ASSERT_EQ(intf().intfnum, 0);
    EXPECT_EQ(intf().OpenDevice(0x7A01, 0x3C02), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf().intfnum, 0xBAD);
}

// --- by path ---

TEST_F(UsbInterface, TakesEveryFieldOfAHidPath) {
    usb.add(12, 34, 0x7A01, 0x3C02);
    ASSERT_EQ(open("//?/hid#vid_7a01&pid_3C02&mi_05&ec_0aF1#bus_12&dev_034#hub_07&port_03"
                   "#usagepage_ff45&usage_a000"),
              0);
    EXPECT_EQ(intf().GetDeviceType(), DEVICE_TYPE_HID);
    EXPECT_EQ(intf().VendorID, 0x7A01);
    EXPECT_EQ(intf().ProductID, 0x3C02);
    EXPECT_EQ(intf().Interface, 5);
    EXPECT_EQ(intf().VersionNumber, 0x0AF1);
    EXPECT_EQ(intf().BusNumber, 12);
    EXPECT_EQ(intf().DeviceAddress, 34);
    EXPECT_EQ(intf().HubNumber, 7);
    EXPECT_EQ(intf().PortNumber, 3);
    EXPECT_EQ(intf().UsagePage, 0xFF45);
    EXPECT_EQ(intf().Usage, 0xA000);
    EXPECT_EQ(intf().config_descriptor_retrieved, 1);
}

TEST_F(UsbInterface, TellsTheTypeByThePrefix) {
    open("//?/usb#vid_0001");
    EXPECT_EQ(intf().GetDeviceType(), DEVICE_TYPE_USB);
    open("//?/hub#vid_0001");
    EXPECT_EQ(intf().GetDeviceType(), DEVICE_TYPE_HUB);
    open("/dev/hidraw0");
    EXPECT_EQ(intf().GetDeviceType(), DEVICE_TYPE_NONE);
    open("behind //?/hub and //?/usb");
    EXPECT_EQ(intf().GetDeviceType(), DEVICE_TYPE_USB);
    open("//?/usb//?/hid");
    EXPECT_EQ(intf().GetDeviceType(), DEVICE_TYPE_HID);
}

TEST_F(UsbInterface, ForgetsTheFieldsOfAnEarlierPath) {
    open("//?/hid#vid_7a01&pid_3c02&mi_05#bus_12&dev_034#hub_07&port_03#usagepage_ff45&usage_a000");
    ASSERT_EQ(intf().Usage, 0xA000);
    open("//?/hid#");
    EXPECT_EQ(intf().VendorID, 0);
    EXPECT_EQ(intf().ProductID, 0);
    EXPECT_EQ(intf().Interface, 0);
    EXPECT_EQ(intf().BusNumber, 0);
    EXPECT_EQ(intf().DeviceAddress, 0);
    EXPECT_EQ(intf().HubNumber, 0);
    EXPECT_EQ(intf().PortNumber, 0);
    EXPECT_EQ(intf().UsagePage, 0);
    EXPECT_EQ(intf().Usage, 0);
    EXPECT_STREQ(intf().DevicePath, "//?/hid#");
}

TEST_F(UsbInterface, TakesHubPortVersionAndUsageOfThePathUncompared) {
    usb.add(1, 2, 0x7A01, 0x3C02);
    EXPECT_EQ(open("//?/hid#vid_7a01&pid_3c02&mi_09&ec_9999#bus_01&dev_002#hub_55&port_66"
                   "#usagepage_7777&usage_8888"),
              0);
    EXPECT_EQ(intf().GetVersionNumber(), 0x9999);
}

TEST_F(UsbInterface, APathWithoutVendorMatchesOnlyADeviceOfVendorZero) {
    usb.add(1, 2, 0x7A01, 0x3C02);
    EXPECT_EQ(open("//?/hid#pid_3c02#bus_01&dev_002"), LIBUSB_ERROR_INVALID_PARAM);
    usb.add(1, 2, 0, 0x3C02);
    EXPECT_EQ(open("//?/hid#pid_3c02#bus_01&dev_002"), 0);
    EXPECT_EQ(intf().VendorID, 0);
}

TEST_F(UsbInterface, MatchesBusAddressVendorAndProduct) {
    usb.add(1, 2, 0x7A01, 0x3C02);
    for (const char* path :
         {"//?/hid#vid_7a01&pid_3c02#bus_02&dev_002", "//?/hid#vid_7a01&pid_3c02#bus_01&dev_003",
          "//?/hid#vid_7a04&pid_3c02#bus_01&dev_002", "//?/hid#vid_7a01&pid_3c03#bus_01&dev_002"}) {
        EXPECT_EQ(open(path), LIBUSB_ERROR_INVALID_PARAM) << path;
    }
    EXPECT_EQ(usb.live_lists, 0);
    EXPECT_THAT(usb.calls(), ElementsAre());
}

TEST_F(UsbInterface, PassesOverADeviceWhoseDescriptorCannotBeRead) {
    FakeUsbDevice& device = flash_device();
    device.descriptor_rc = -1;
    EXPECT_EQ(open(flash_path(device)), LIBUSB_ERROR_INVALID_PARAM);
}

TEST_F(UsbInterface, GoesOnAfterADeviceThatCannotBeOpened) {
    FakeUsbDevice& refused = flash_device();
    refused.open_rc = -3;
    EXPECT_EQ(open(flash_path(refused)), -3);
    EXPECT_EQ(intf().handle, nullptr);
    FakeUsbDevice& second = flash_device();
    EXPECT_EQ(open(flash_path(second)), 0);
}

TEST_F(UsbInterface, TellsTheLastOfSeveralOpenErrors) {
    FakeUsbDevice& first = flash_device();
    first.open_rc = -3;
    flash_device().open_rc = -12;
    usb.add(9, 9, 0x7A01, 0x3C02);
    EXPECT_EQ(open(flash_path(first)), -12);
    EXPECT_EQ(usb.live_lists, 0);
    EXPECT_EQ(usb.live_configurations, 0);
}

TEST_F(UsbInterface, OpensTheFirstOfSeveralThatMatch) {
    FakeUsbDevice& first = flash_device();
    flash_device();
    ASSERT_EQ(open(flash_path(first)), 0);
    EXPECT_EQ(intf().GetDevice(), as_libusb(first));
    EXPECT_EQ(usb.live_handles, 1);
}

TEST_F(UsbInterface, IsOpenWhenItsConfigurationCannotBeRead) {
    FakeUsbDevice& device = flash_device();
    device.config_rc = -5;
    EXPECT_EQ(open(flash_path(device)), 0);
    EXPECT_NE(intf().handle, nullptr);
    EXPECT_EQ(intf().config_descriptor_retrieved, 0);
}

TEST_F(UsbInterface, RefusesASecondPathWhileADeviceIsOpen) {
    ASSERT_EQ(open(flash_path(flash_device())), 0);
    EXPECT_EQ(open("//?/usb#vid_0001"), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf().GetVendorID(), 0x7A01);
    EXPECT_EQ(intf().GetDeviceType(), DEVICE_TYPE_HID);
}

TEST_F(UsbInterface, NeitherWalksNorFreesAListThatLibusbCouldNotGive) {
    FakeUsbDevice& device = flash_device();
    usb.list_rc = -11;
    EXPECT_EQ(open(flash_path(device)), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(usb.live_lists, 0);
}

TEST_F(UsbInterface, FreesAnEmptyList) {
    EXPECT_EQ(open("//?/hid#bus_01&dev_002"), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(usb.live_lists, 0);
}

TEST_F(UsbInterface, CutsAPathThatIsTooLongForItsMember) {
    const std::string path = "//?/hid#" + std::string(400, 'x') + "bus_09";
    open(path);
    EXPECT_EQ(std::string(intf().DevicePath), path.substr(0, 254));
    EXPECT_EQ(intf().BusNumber, 9);
}

TEST_F(UsbInterface, ReadsNumbersOfAnyLengthAndSign) {
    open("//?/hid#vid_" + std::string(60, '1') + "#bus_-1&dev_" + std::string(60, '9'));
    EXPECT_EQ(intf().VendorID, 0xFFFF);
    EXPECT_EQ(intf().BusNumber, 255);
    EXPECT_EQ(intf().DeviceAddress, 255);
    open("//?/hid#vid_0x12&pid_x&mi_--5#bus_12-4&dev_");
    EXPECT_EQ(intf().VendorID, 0x12);
    EXPECT_EQ(intf().ProductID, 0);
    EXPECT_EQ(intf().Interface, 0);
    EXPECT_EQ(intf().BusNumber, 12);
    EXPECT_EQ(intf().DeviceAddress, 0);
}

TEST_F(UsbInterface, AKeywordOfTheLastCharacterAloneIsNotFound) {
    EXPECT_EQ(open(""), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(open("v"), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf().VendorID, 0);
}

TEST_F(UsbInterface, FreesAConfigurationThatItReplaces) {
    ASSERT_EQ(open(flash_path(flash_device())), 0);
    EXPECT_EQ(intf().GetUsbConfig(), 0);
    EXPECT_EQ(usb.live_configurations, 1);
    usb.devices.front().config_rc = -5;
    EXPECT_EQ(intf().GetUsbConfig(), -5);
    EXPECT_EQ(intf().config_descriptor_retrieved, 0);
    EXPECT_EQ(usb.live_configurations, 0);
}

// --- strings ---

TEST_F(UsbInterface, ReadsTheSerialNumber) {
    ASSERT_EQ(open(flash_path(flash_device())), 0);
    EXPECT_STREQ(intf().GetSerialNumber(), "SN-0042");
    EXPECT_EQ(usb.controls.back().index, 0x0409);
    EXPECT_EQ(usb.controls.back().length, 255);
}

TEST_F(UsbInterface, SaysThatThereIsNoSerialNumber) {
    FakeUsbDevice& device = flash_device();
    ASSERT_EQ(open(flash_path(device)), 0);
    device.strings[3] = string_descriptor("");
    EXPECT_STREQ(intf().GetSerialNumber(), "NO SERIAL NUMBER");
    device.strings.clear();
    EXPECT_STREQ(intf().GetSerialNumber(), "NO SERIAL NUMBER");
    usb.controls.clear();
    intf().descriptor.iSerialNumber = 0;
    EXPECT_STREQ(intf().GetSerialNumber(), "NO SERIAL NUMBER");
    EXPECT_TRUE(usb.controls.empty());
}

TEST_F(UsbInterface, ReplacesWhatIsNotLatin1) {
    ASSERT_EQ(open(flash_path(flash_device())), 0);
    EXPECT_EQ(read_string({8, 3, 'a', 0, 0xAC, 0x20, 0xE4, 0}), "a?\xE4");
    EXPECT_EQ(string_result, 3);
}

TEST_F(UsbInterface, RefusesAnAnswerThatIsNoStringDescriptor) {
    ASSERT_EQ(open(flash_path(flash_device())), 0);
    for (const Bytes& answer : {Bytes{4, 2, 'a', 0}, Bytes{6, 3, 'a', 0}, Bytes{2}}) {
        read_string(answer);
        EXPECT_EQ(string_result, -1);
    }
    read_string({});
    EXPECT_EQ(string_result, 0);
}

TEST_F(UsbInterface, PassesOnAFailedStringRequest) {
    ASSERT_EQ(open(flash_path(flash_device())), 0);
    Bytes buffer(4);
    EXPECT_EQ(intf().GetStringDescriptorAscii(77, buffer.data(), 4), LIBUSB_ERROR_PIPE);
}

TEST_F(UsbInterface, TellsOfAStringThatCouldNotBeRead) {
    ASSERT_EQ(open(flash_path(flash_device())), 0);
    Bytes buffer(4);
    intf().GetStringDescriptorAscii(77, buffer.data(), 4);
    EXPECT_EQ(log.count("3:7a01:3c02 - String descriptor 77 not read, rc=-9\n"), 1);
    read_string({9, 3, 'a', 0});
    EXPECT_EQ(log.count("3:7a01:3c02 - String descriptor 9 not read, rc=-1\n"), 1);
}

TEST_F(UsbInterface, CutsAStringAtTheCallersLimit) {
    ASSERT_EQ(open(flash_path(flash_device())), 0);
    EXPECT_EQ(read_string(string_descriptor("abcdef"), 4), "abc");
    EXPECT_EQ(string_result, 3);
    EXPECT_EQ(read_string(string_descriptor("abcdef"), 1), "");
    EXPECT_EQ(read_string(string_descriptor("abcdef"), 0), "");
    EXPECT_EQ(string_result, LIBUSB_ERROR_INVALID_PARAM);
}

TEST_F(UsbInterface, EndsALongStringOfOddLength) {
    ASSERT_EQ(open(flash_path(flash_device())), 0);
    Bytes answer(255, 'x');
    for (size_t i = 3; i < answer.size(); i += 2) {
        answer[i] = 0;
    }
    answer[0] = 255;
    answer[1] = 3;
    EXPECT_EQ(read_string(answer), std::string(127, 'x'));
}

// --- the flash interface ---

class FlashInterfaceString : public UsbInterface {
  protected:
    int interface_with(const std::string& text) {
        FakeUsbDevice& device = flash_device();
        FakeSetting mouse;
        mouse.interface_class = LIBUSB_CLASS_VENDOR_SPEC;
        mouse.string_index = 4;
        device.configurations[0].interfaces.insert(device.configurations[0].interfaces.begin(),
                                                   {mouse});
        device.strings[4] = string_descriptor(text);
        EXPECT_EQ(open(flash_path(device)), 0);
        return intf().GetFlashInterface();
    }
};

TEST_F(FlashInterfaceString, IsFoundByUsageA000) {
    EXPECT_EQ(interface_with("Usage=A000 Usage Page=FF45"), 1);
    EXPECT_EQ(log.text(), "3:Flash interface on 1\n");
}

TEST_F(FlashInterfaceString, MayCarryThePageInTheHighHalf) {
    EXPECT_EQ(interface_with("Usage=FF45A000"), 1);
}

TEST_F(FlashInterfaceString, MayHaveSeveralSeparators) {
    EXPECT_EQ(interface_with("Flash Usage = =0xA000"), 1);
}

TEST_F(FlashInterfaceString, IsNotFoundWhenThePageComesFirst) {
    EXPECT_EQ(interface_with("UsagePage=FF45 Usage=A000"), 0xBAD);
}

TEST_F(FlashInterfaceString, IsNotFoundWithoutAValue) {
    EXPECT_EQ(interface_with("Usage = "), 0xBAD);
}

TEST_F(FlashInterfaceString, IsNotFoundWithAnotherUsage) {
    EXPECT_EQ(interface_with("Usage=A001"), 0xBAD);
}

TEST_F(FlashInterfaceString, IsNotFoundWithoutUsage) {
    EXPECT_EQ(interface_with("A000"), 0xBAD);
}

TEST_F(FlashInterfaceString, IsNotFoundInAnEmptyString) {
    EXPECT_EQ(interface_with(""), 0xBAD);
}

TEST_F(FlashInterfaceString, MayStandInAnyAlternateSetting) {
    FakeUsbDevice& device = flash_device();
    FakeSetting keyboard;
    keyboard.string_index = 5;
    device.strings[5] = string_descriptor("Keyboard");
    auto& settings = device.configurations[0].interfaces[0];
    settings.insert(settings.begin(), keyboard);
    ASSERT_EQ(open(flash_path(device)), 0);
    EXPECT_EQ(intf().GetFlashInterface(), 0);
}

TEST_F(FlashInterfaceString, NamesThePositionAndNotTheInterfaceNumber) {
    FakeUsbDevice& device = flash_device();
    device.configurations[0].interfaces[0][0].number = 7;
    ASSERT_EQ(open(flash_path(device)), 0);
    EXPECT_EQ(intf().GetFlashInterface(), 0);
}

TEST_F(FlashInterfaceString, NamesTheFirstOfTwo) {
    FakeUsbDevice& device = flash_device();
    auto& interfaces = device.configurations[0].interfaces;
    interfaces.push_back(interfaces[0]);
    ASSERT_EQ(open(flash_path(device)), 0);
    EXPECT_EQ(intf().GetFlashInterface(), 0);
    EXPECT_EQ(log.count("Flash interface on"), 1);
}

TEST_F(UsbInterface, FindsNoFlashInterfaceInAConfigurationWithoutInterfaces) {
    FakeUsbDevice& device = flash_device();
    device.configurations[0].interfaces.clear();
    ASSERT_EQ(open(flash_path(device)), 0);
    EXPECT_EQ(intf().GetFlashInterface(), 0xBAD);
    device.configurations[0].interfaces = {{}};
    ASSERT_EQ(intf().GetUsbConfig(), 0);
    EXPECT_EQ(intf().GetFlashInterface(), 0xBAD);
}

// --- claim ---

TEST_F(UsbInterface, LearnsEndpointsAndReportsOfAClaimedInterface) {
    claim(flash_device());
    EXPECT_EQ(intf().intfnum, 0);
    EXPECT_EQ(intf().EndpointIndex, 1);
    EXPECT_EQ(intf().Endpoints[0].Address, 0x81);
    EXPECT_EQ(intf().Endpoints[0].Attributes, 3);
    EXPECT_EQ(intf().Endpoints[0].MaxPacketSize, 64);
    EXPECT_EQ(intf().InterruptEndpointIn, 0x81);
    EXPECT_EQ(intf().InterruptEndpointInSize, 64);
    EXPECT_EQ(intf().InterruptEndpointOut, 0);
    ASSERT_EQ(intf().OutputReportCount, 1);
    EXPECT_EQ(intf().OutputReports[0]->Usage, 0xA001);
    EXPECT_EQ(intf().OutputReports[0]->UsagePage, 0xFF45);
    EXPECT_EQ(intf().OutputReports[0]->Size, 263);
    EXPECT_EQ(intf().InputReportCount, 1);
    EXPECT_EQ(intf().FeatureReportCount, 2);
    EXPECT_EQ(intf().ReportIdUsed, 0);
    EXPECT_EQ(log.text(),
              "3:Report Counts: Input=1, Output=1, Feature=2\n"
              "3:Input Reports: 1\n3:    ReportID: 00  Usage=ff45:a002  Size=8\n"
              "3:Output Reports: 1\n3:    ReportID: 00  Usage=ff45:a001  Size=263\n"
              "3:Feature Reports: 2\n3:    ReportID: 00  Usage=ff45:a003  Size=32\n"
              "3:    ReportID: 00  Usage=ff45:1603  Size=32\n"
              "3:Endpoints: 1\n3:0:  Address=81  Attributes=03  MaxPacketSize=64\n");
}

TEST_F(UsbInterface, AsksTheInterfaceForItsReportDescriptor) {
    FakeUsbDevice& device = claim(flash_device());
    const FakeControl& control = usb.controls.back();
    EXPECT_EQ(control.type, 0x81);
    EXPECT_EQ(control.request, 6);
    EXPECT_EQ(control.value, 0x2200);
    EXPECT_EQ(control.index, 0);
    EXPECT_EQ(control.length, device.report_descriptor.size());
    EXPECT_EQ(control.timeout, 5000U);
}

TEST_F(UsbInterface, KnowsThatReportIdsAreUsed) {
    FakeUsbDevice& device = flash_device();
    make_flash_device(device, true);
    claim(device);
    EXPECT_EQ(intf().ReportIdUsed, 1);
    EXPECT_EQ(intf().FeatureReports[1]->ReportID, 3);
}

TEST_F(UsbInterface, KnowsThatReportIdsAreUsedByOneReportAmongOthers) {
    FakeUsbDevice& device = flash_device();
    device.report_descriptor =
        join({item(0x74, {8}), item(0x94, {4}), item(0x84, {1}), item(0x08, {1}), item(0x80, {2}),
              item(0x84, {0}), item(0x08, {2}), item(0xB0, {2})});
    claim(device);
    ASSERT_EQ(intf().FeatureReportCount, 1);
    EXPECT_EQ(intf().FeatureReports[0]->ReportID, 0);
    EXPECT_EQ(intf().ReportIdUsed, 1);
}

TEST_F(UsbInterface, ParsesOnlyTheBytesThatWereReceived) {
    FakeUsbDevice& device = flash_device();
    device.report_descriptor =
        join({item(0x74, {8}), item(0x94, {4}), item(0x08, {1}), item(0x90, {2})});
    device.configurations[0].interfaces[0][0].extra = hid_descriptor(40);
    // What an earlier request may have left: two-byte items, a usage and an input report.
    const Bytes earlier = join({item(0x08, {5}), item(0x80, {2})});
    for (size_t i = 0; i < 40; ++i) {
        intf().HidReport[i] = earlier[i % earlier.size()];
    }
    claim(device);
    EXPECT_EQ(intf().OutputReportCount, 1);
    EXPECT_EQ(intf().InputReportCount, 0);
}

TEST_F(UsbInterface, DetachesTheDriverOfABusyInterface) {
    FakeUsbDevice& device = flash_device();
    device.claim_rcs = {LIBUSB_ERROR_BUSY, 0};
    claim(device);
    EXPECT_THAT(usb.calls(),
                ElementsAre("open 17", "active configuration", "claim 0", "detach 0", "claim 0"));
}

TEST_F(UsbInterface, StaysUnclaimedWhenTheDriverDoesNotLetGo) {
    FakeUsbDevice& device = flash_device();
    device.claim_rcs = {LIBUSB_ERROR_BUSY, 0};
    device.detach_rc = -12;
    ASSERT_EQ(open(flash_path(device)), 0);
    EXPECT_EQ(intf().ClaimInterface(0), LIBUSB_ERROR_BUSY);
    EXPECT_EQ(intf().intfnum, 0xBAD);
    EXPECT_EQ(device.claim_rcs.size(), 1U);
}

TEST_F(UsbInterface, PassesOnAFailedClaim) {
    FakeUsbDevice& device = flash_device();
    device.claim_rcs = {LIBUSB_ERROR_NO_DEVICE, LIBUSB_ERROR_BUSY, LIBUSB_ERROR_OTHER};
    ASSERT_EQ(open(flash_path(device)), 0);
    EXPECT_EQ(intf().ClaimInterface(0), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(intf().ClaimInterface(0), LIBUSB_ERROR_OTHER);
    EXPECT_EQ(intf().intfnum, 0xBAD);
}

TEST_F(UsbInterface, ClaimsWithoutAConfigurationButLearnsNothing) {
    FakeUsbDevice& device = flash_device();
    device.config_rc = -5;
    claim(device);
    EXPECT_EQ(intf().intfnum, 0);
    EXPECT_EQ(intf().EndpointIndex, 0);
    EXPECT_EQ(intf().OutputReportCount, 0);
}

TEST_F(UsbInterface, ReadsAnInterfaceWithoutInterruptEndpointFourTimes) {
    FakeUsbDevice& device = flash_device();
    libusb_endpoint_descriptor control_endpoint = interrupt_endpoint(0x02, 8);
    control_endpoint.bmAttributes = ENDPOINT_TT_CONTROL;
    device.configurations[0].interfaces[0][0].endpoints = {control_endpoint};
    claim(device);
    for (const char* count : {"0", "1", "2"}) {
        EXPECT_EQ(log.count(std::string("3:Reading USB information again (count=") + count + ")\n"),
                  1);
    }
    EXPECT_EQ(log.count("Reading USB information again"), 3);
    EXPECT_EQ(intf().EndpointIndex, 4);
    EXPECT_EQ(intf().OutputReportCount, 4);
    EXPECT_EQ(intf().intfnum, 0);
    EXPECT_EQ(usb.live_configurations, 1);
}

TEST_F(UsbInterface, StopsReadingAgainWhenTheConfigurationIsGone) {
    FakeUsbDevice& device = flash_device();
    libusb_endpoint_descriptor control_endpoint = interrupt_endpoint(0x02, 8);
    control_endpoint.bmAttributes = ENDPOINT_TT_CONTROL;
    device.configurations[0].interfaces[0][0].endpoints = {control_endpoint};
    ASSERT_EQ(open(flash_path(device)), 0);
    device.config_rc = -4;
    EXPECT_EQ(intf().ClaimInterface(0), 0);
    EXPECT_EQ(log.count("Reading USB information again"), 1);
    EXPECT_EQ(intf().config_descriptor_retrieved, 0);
}

TEST_F(UsbInterface, ReadsAnInterfaceWithoutEndpointsOnce) {
    FakeUsbDevice& device = flash_device();
    device.configurations[0].interfaces[0][0].endpoints.clear();
    claim(device);
    EXPECT_EQ(log.count("3:Endpoints: 0\n"), 1);
    EXPECT_EQ(log.count("Reading USB information again"), 0);
}

TEST_F(UsbInterface, ReadsNoEndpointsThatAreCountedButNotListed) {
    FakeUsbDevice& device = flash_device();
    FakeSetting& setting = device.configurations[0].interfaces[0][0];
    setting.endpoints = {interrupt_endpoint(0x81, 64), interrupt_endpoint(0x02, 64)};
    setting.hides_endpoints = true;
    claim(device);
    EXPECT_EQ(log.count("3:Endpoints: 2\n"), 1);
    EXPECT_EQ(intf().EndpointIndex, 0);
}

TEST_F(UsbInterface, ClaimsAnInterfaceThatTheConfigurationDoesNotHave) {
    FakeUsbDevice& device = flash_device();
    ASSERT_EQ(open(flash_path(device)), 0);
    EXPECT_EQ(intf().ClaimInterface(7), 0);
    EXPECT_EQ(intf().intfnum, 7);
    EXPECT_EQ(intf().EndpointIndex, 0);
    device.configurations[0].interfaces = {{}, {}};
    ASSERT_EQ(intf().GetUsbConfig(), 0);
    EXPECT_EQ(intf().ClaimInterface(0), 0);
    device.configurations[0].interfaces.clear();
    ASSERT_EQ(intf().GetUsbConfig(), 0);
    EXPECT_EQ(intf().ClaimInterface(0), 0);
    EXPECT_EQ(intf().EndpointIndex, 0);
}

TEST_F(UsbInterface, UsesNoAlternateSettingThatIsNotThere) {
    FakeUsbDevice& device = flash_device();
    ASSERT_EQ(open(flash_path(device)), 0);
    intf().setting_number = 1;
    EXPECT_EQ(intf().ClaimInterface(0), 0);
    EXPECT_EQ(intf().EndpointIndex, 0);
    EXPECT_EQ(intf().OutputReportCount, 0);
}

// What stands behind the last setting is a whole one, so that a step too far would show.
TEST_F(UsbInterface, UsesNoSettingBehindTheLastOne) {
    FakeUsbDevice& device = flash_device();
    auto& settings = device.configurations[0].interfaces[0];
    settings.push_back(settings[0]);
    ASSERT_EQ(open(flash_path(device)), 0);
    auto* const listed = const_cast<libusb_interface*>(intf().config->interface);
    ASSERT_EQ(listed->num_altsetting, 2);
    listed->num_altsetting = 1;
    intf().setting_number = 1;
    EXPECT_EQ(intf().ClaimInterface(0), 0);
    listed->num_altsetting = 2;
    EXPECT_EQ(intf().EndpointIndex, 0);
    EXPECT_EQ(intf().OutputReportCount, 0);
}

TEST_F(UsbInterface, TellsTheSizeOfAnOutputReport) {
    FakeUsbDevice& device = flash_device();
    EXPECT_EQ(intf().GetOutputReportSize(0xFF45, 0xA001), 0);
    claim(device);
    EXPECT_EQ(intf().GetOutputReportSize(0xFF45, 0xA001), 263);
    EXPECT_EQ(intf().GetOutputReportSize(0xFF45, 0xA002), 0);
    EXPECT_EQ(intf().GetOutputReportSize(0xFF46, 0xA001), 0);
}

TEST_F(UsbInterface, UsesTheChosenAlternateSetting) {
    FakeUsbDevice& device = flash_device();
    FakeSetting second = device.configurations[0].interfaces[0][0];
    second.endpoints = {interrupt_endpoint(0x83, 0x1840), interrupt_endpoint(0x04, 8)};
    device.configurations[0].interfaces[0].push_back(second);
    ASSERT_EQ(open(flash_path(device)), 0);
    intf().setting_number = 1;
    EXPECT_EQ(intf().ClaimInterface(0), 0);
    EXPECT_EQ(intf().InterruptEndpointIn, 0x83);
    EXPECT_EQ(intf().Endpoints[0].MaxPacketSize, 0x40);
    EXPECT_EQ(intf().InterruptEndpointOut, 0x04);
    EXPECT_EQ(intf().InterruptEndpointOutSize, 8);
}

// An interface counts as HID by any of its settings, its reports by the one that is used.
TEST_F(UsbInterface, ReadsNoReportsOfASettingThatIsNotHid) {
    FakeUsbDevice& device = flash_device();
    FakeSetting vendor = device.configurations[0].interfaces[0][0];
    vendor.interface_class = LIBUSB_CLASS_VENDOR_SPEC;
    auto& settings = device.configurations[0].interfaces[0];
    settings.insert(settings.begin(), vendor);
    claim(device);
    EXPECT_EQ(intf().InterruptEndpointIn, 0x81);
    EXPECT_EQ(intf().OutputReportCount, 0);
    EXPECT_EQ(log.count("Report Counts"), 0);
}

TEST_F(UsbInterface, TakesAnyEndpointButAControlEndpointForAnInterruptEndpoint) {
    for (const int type : {ENDPOINT_TT_ISOCHRONOUS, ENDPOINT_TT_BULK, ENDPOINT_TT_INTERRUPT}) {
        object.reset();
        usb.devices.clear();
        FakeUsbDevice& device = flash_device();
        libusb_endpoint_descriptor in = interrupt_endpoint(0x85, 16);
        libusb_endpoint_descriptor out = interrupt_endpoint(0x06, 32);
        // The bits above the transfer type do not count.
        in.bmAttributes = out.bmAttributes = static_cast<uint8_t>(0x30 | type);
        device.configurations[0].interfaces[0][0].endpoints = {in, out};
        claim(device);
        EXPECT_EQ(intf().InterruptEndpointIn, 0x85) << type;
        EXPECT_EQ(intf().InterruptEndpointInSize, 16);
        EXPECT_EQ(intf().InterruptEndpointOut, 0x06);
        EXPECT_EQ(intf().InterruptEndpointOutSize, 32);
    }
}

TEST_F(UsbInterface, IsContentWithAnOutEndpointAlone) {
    FakeUsbDevice& device = flash_device();
    device.configurations[0].interfaces[0][0].endpoints = {interrupt_endpoint(0x02, 32)};
    claim(device);
    EXPECT_EQ(intf().InterruptEndpointOut, 0x02);
    EXPECT_EQ(intf().InterruptEndpointIn, 0);
    EXPECT_EQ(log.count("Reading USB information again"), 0);
}

TEST_F(UsbInterface, CountsTheEndpointsAnewAtEachClaimButKeepsTheReports) {
    claim(flash_device());
    EXPECT_EQ(intf().ClaimInterface(0), 0);
    EXPECT_EQ(intf().EndpointIndex, 1);
    EXPECT_EQ(intf().OutputReportCount, 2);
}

TEST_F(UsbInterface, KeepsTenEndpointsAndTheLowByteOfTheirSize) {
    FakeUsbDevice& device = flash_device();
    auto& endpoints = device.configurations[0].interfaces[0][0].endpoints;
    endpoints.clear();
    for (uint8_t i = 1; i <= 11; ++i) {
        endpoints.push_back(interrupt_endpoint(static_cast<uint8_t>(0x80 | i), 0x0140));
    }
    claim(device);
    EXPECT_EQ(intf().EndpointIndex, 10);
    EXPECT_EQ(intf().InterruptEndpointIn, 0x8A);
    EXPECT_EQ(intf().Endpoints[9].MaxPacketSize, 0x140);
    EXPECT_EQ(intf().InterruptEndpointInSize, 0x40);
}

// --- report descriptors ---

class HidDescriptor : public UsbInterface {
  protected:
    // How many bytes of report descriptors were asked for, by one claim each.
    std::vector<int> requested(const Bytes& extra) {
        FakeUsbDevice& device = flash_device();
        device.configurations[0].interfaces[0][0].extra = extra;
        claim(device);
        std::vector<int> lengths;
        for (const FakeControl& control : usb.controls) {
            if (control.value == 0x2200) {
                lengths.push_back(control.length);
            }
        }
        return lengths;
    }
};

TEST_F(HidDescriptor, MayAskFor8192Bytes) {
    EXPECT_THAT(requested(hid_descriptor(8192)), ElementsAre(8192));
}

TEST_F(HidDescriptor, IsNotFollowedTo8193Bytes) {
    EXPECT_THAT(requested(hid_descriptor(8193)), ElementsAre());
}

TEST_F(HidDescriptor, IsFoundBehindOthers) {
    EXPECT_THAT(requested(join({{3, 0x30, 0}, {2, 0x31}, hid_descriptor(10)})), ElementsAre(10));
}

TEST_F(HidDescriptor, IsTheFirstOfSeveral) {
    EXPECT_THAT(requested(join({hid_descriptor(10), hid_descriptor(11)})), ElementsAre(10));
}

TEST_F(HidDescriptor, ListsReportDescriptorsAmongOthers) {
    EXPECT_THAT(requested({15, 0x21, 0x11, 1, 0, 3, 0x22, 10, 0, 0x23, 20, 0, 0x22, 30, 0}),
                ElementsAre(10, 30));
}

TEST_F(HidDescriptor, IsReadOnlyAsFarAsThereAreBytes) {
    EXPECT_THAT(requested({9, 0x21, 0x11, 1, 0, 255, 0x22, 10, 0, 0x22, 10}), ElementsAre(10));
}

TEST_F(HidDescriptor, MayBeCutBeforeItsCount) {
    EXPECT_THAT(requested({9, 0x21, 0x11, 1, 0}), ElementsAre());
}

TEST_F(HidDescriptor, MayBeCutBehindItsCount) {
    EXPECT_THAT(requested({9, 0x21, 0x11, 1, 0, 1}), ElementsAre());
}

TEST_F(HidDescriptor, IsNotLookedForBehindALengthBelowTwo) {
    EXPECT_THAT(requested(join({{1, 0x30}, hid_descriptor(10)})), ElementsAre());
}

TEST_F(HidDescriptor, IsNotLookedForBeyondTheEnd) {
    EXPECT_THAT(requested({255, 0x30, 9, 0x21, 0x11, 1, 0, 1, 0x22, 10, 0}), ElementsAre());
}

TEST_F(HidDescriptor, MayBeMissing) {
    EXPECT_THAT(requested({}), ElementsAre());
    EXPECT_EQ(intf().InterruptEndpointIn, 0x81);
}

TEST_F(UsbInterface, LearnsNoReportsWithoutAReportDescriptor) {
    FakeUsbDevice& device = flash_device();
    device.report_descriptor.clear();
    claim(device);
    EXPECT_EQ(intf().OutputReportCount, 0);
    EXPECT_EQ(log.count("Report Counts"), 0);
}

namespace {

/// A main item that makes reports, and the count of those that it makes.
struct KindOfReport {
    const char* name;
    uint8_t prefix;
    int USBINTF::*count;
};

class ReportTableOf : public UsbInterface, public testing::WithParamInterface<KindOfReport> {};

INSTANTIATE_TEST_SUITE_P(Each, ReportTableOf,
                         testing::Values(KindOfReport{"Inputs", 0x80, &USBINTF::InputReportCount},
                                         KindOfReport{"Outputs", 0x90, &USBINTF::OutputReportCount},
                                         KindOfReport{"Features", 0xB0,
                                                      &USBINTF::FeatureReportCount}),
                         [](const auto& given) { return given.param.name; });

TEST_P(ReportTableOf, DropsThe97th) {
    FakeUsbDevice& device = flash_device();
    std::vector<Bytes> parts{item(0x74, {8}), item(0x94, {1})};
    for (int i = 0; i < 3; ++i) {
        parts.insert(parts.end(),
                     {item(0x18, {1}), item(0x28, {32}), item(GetParam().prefix, {2})});
    }
    device.report_descriptor = join(parts);
    // The same reports twice: 96 and 96 again.
    device.configurations[0].interfaces[0][0].extra = {12,   0x21, 0x11, 1,    0,  2,
                                                       0x22, 22,   0,    0x22, 22, 0};
    ASSERT_EQ(device.report_descriptor.size(), 22U);
    claim(device);
    EXPECT_EQ(intf().*GetParam().count, 96);
    EXPECT_EQ(log.count("    ReportID:"), 96);
}

TEST_F(UsbInterface, KeepsTheSizeOfAReportThatNoTransferCanCarry) {
    FakeUsbDevice& device = flash_device();
    device.report_descriptor =
        join({item(0x74, {8}), item(0x94, {0, 0, 1, 0}), item(0x08, {1}), item(0x90, {2})});
    device.configurations[0].interfaces[0][0].extra =
        hid_descriptor(static_cast<int>(device.report_descriptor.size()));
    claim(device);
    EXPECT_EQ(intf().OutputReports[0]->Size, 0xFFFF);
}

}  // namespace
