// String descriptors, and the interface that one of them names as the flash interface.
#include "support/usb_interface.h"

#include <gtest/gtest.h>

#include <string>

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
