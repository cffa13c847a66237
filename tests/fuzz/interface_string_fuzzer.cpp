// The strings of HID interfaces, read by both parsers: the one that looks for the flash interface
// and the enumerator's, which also wants the usage page.
#include "support/check.h"
#include "support/fake_usb.h"
#include "support/fuzz_input.h"
#include "usb/flshusbintf.h"
#include "usb/zelflshenum.h"

#include <cstdio>
#include <memory>
#include <string>

namespace {

constexpr uint8_t interface_string_index = 4;
constexpr std::size_t longest_string = 126;
constexpr uint16_t flash_interface_usage = 0xA000;

/// What the two parsers make of a string.
struct Reading {
    bool is_flash_interface;
    uint16_t usage;
    uint16_t usage_page;
};

Reading read_string(const std::string& text) {
    FakeUsb usb;
    FakeUsbDevice& device = usb.add(1, 2, 0x7A01, 0x3C02);
    FakeSetting setting;
    setting.string_index = interface_string_index;
    device.strings[interface_string_index] = string_descriptor(text);
    device.configurations = {{{{setting}}}};

    USBINTF intf;
    check(intf.OpenDevice(as_libusb(device)) == 0 && intf.GetUsbConfig() == 0, "the device opens");
    const int found = intf.GetFlashInterface();
    check(found == 0 || found == no_interface, "the flash interface is the only one, or none");

    USBENUM enumerator;
    check(enumerator.buildTreeInformation() == 0 && enumerator.numberOfHidDevices == 1,
          "the device has one interface");
    const std::unique_ptr<USBHID> hid(enumerator.getHidDevice(0));
    return {found == 0, hid->Usage, hid->UsagePage};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    const auto bytes = input.bytes(longest_string);
    const std::string text(bytes.begin(), bytes.end());
    const Reading reading = read_string(text);
    const std::string seen = text.substr(0, text.find('\0'));
    if (seen.find("Usage Page") == std::string::npos) {
        check(reading.usage_page == 0, "without \"Usage Page\" there is no page");
        check(reading.is_flash_interface == (reading.usage == flash_interface_usage),
              "both parsers find the same usage");
    }
    if (seen.find("Usage") == std::string::npos) {
        check(reading.usage == 0 && !reading.is_flash_interface, "without \"Usage\" there is none");
    }

    FuzzInput numbers(data, size);
    const unsigned int usage = numbers.word();
    const unsigned int page = numbers.word();
    char well_formed[64];
    std::snprintf(well_formed, sizeof well_formed, "Usage=%04X Usage Page=%04X", usage, page);
    const Reading known = read_string(well_formed);
    check(known.usage == usage && known.usage_page == page, "usage and page are the string's");
    check(known.is_flash_interface == (usage == flash_interface_usage),
          "the flash interface is the one of usage A000");
    return 0;
}
