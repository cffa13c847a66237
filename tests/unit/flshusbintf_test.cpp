// A device is opened, by its path or its IDs, and used.
#include "support/usb_interface.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

using testing::ElementsAre;

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
