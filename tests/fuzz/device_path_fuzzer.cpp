// Device paths: the input as a path, and a path that the enumerator writes for a device made of the
// input's bytes, which must lead back to that device.
#include "support/check.h"
#include "support/fake_usb.h"
#include "support/fuzz_input.h"
#include "usb/flshusbintf.h"
#include "usb/zelflshenum.h"
#include "usb/zelflshhid.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

namespace {

constexpr uint8_t interface_string_index = 4;

void check_any_path(const std::string& text) {
    FakeUsb usb;
    usb.add(1, 2, 0x7A01, 0x3C02);
    std::string path = text;
    USBINTF intf;
    const int rc = intf.OpenDevice(path.data());
    check(path == text, "the path stays as it is");
    check(intf.device_type >= DEVICE_TYPE_NONE && intf.device_type <= DEVICE_TYPE_HUB,
          "the device type is one of four");
    check(std::strlen(intf.DevicePath) < sizeof intf.DevicePath, "the path is kept as a text");
    const bool is_the_device = intf.BusNumber == 1 && intf.DeviceAddress == 2 &&
                               intf.VendorID == 0x7A01 && intf.ProductID == 0x3C02;
    check(rc == (is_the_device ? 0 : LIBUSB_ERROR_INVALID_PARAM),
          "a path opens the device with its bus, address, vendor and product");

    const HIDDEVICE2 device(0, 0, text.c_str());
    check(device.OpenRc == 0 || device.OpenRc == 1, "the device is open or not");
}

void check_written_path(FuzzInput input) {
    FakeUsb usb;
    const uint8_t bus = input.byte();
    const uint8_t address = input.byte();
    const uint16_t vendor = input.word();
    FakeUsbDevice& device = usb.add(bus, address, vendor, input.word());
    device.descriptor.bcdDevice = input.word();
    const unsigned int usage = input.word();
    const unsigned int page = input.word();
    char text[64];
    std::snprintf(text, sizeof text, "Usage=%04X Usage Page=%04X", usage, page);
    FakeSetting setting;
    setting.number = input.byte();
    setting.string_index = interface_string_index;
    device.strings[interface_string_index] = string_descriptor(text);
    device.configurations = {{{{setting}}}};

    USBENUM enumerator;
    check(enumerator.buildTreeInformation() == 0, "enumerating returns 0");
    const std::unique_ptr<USBHID> hid(enumerator.getHidDevice(0));
    check(hid != nullptr, "the device has one interface");
    USBINTF intf;
    check(intf.OpenDevice(hid->DevicePath) == 0, "the path leads to the device");
    check(intf.device_type == DEVICE_TYPE_HID, "the path is an interface's");
    check(intf.GetBusNumber() == bus && intf.GetAddress() == address, "bus and address come back");
    check(intf.GetVendorID() == vendor && intf.GetProductID() == device.descriptor.idProduct,
          "vendor and product come back");
    check(intf.GetVersionNumber() == device.descriptor.bcdDevice, "the version comes back");
    check(intf.GetUsage() == usage && intf.GetUsagePage() == page, "usage and page come back");
    check(intf.Interface == setting.number, "the interface number comes back");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    check_any_path(FuzzInput(data, size).text());
    check_written_path(FuzzInput(data, size));
    return 0;
}
