/// \file
/// What the tests of an open USB device share.
#pragma once

#include "support/fake_usb.h"
#include "support/log_capture.h"
#include "usb/flshusbintf.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

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
