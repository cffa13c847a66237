// String descriptors: serial number, interface strings, and the flash interface found by them.
#include "flash_protocol.h"
#include "journal/output.h"
#include "usb/flshusbintf.h"
#include "usb/flshusbintf_text.h"

#include <array>
#include <cstdio>
#include <cstring>

namespace {

constexpr int max_string = 255;
constexpr uint16_t us_english = 0x0409;
constexpr int malformed_string = -1;

/// Without its interface string a device is no flash device, and nothing else tells why.
void report_unread_string(const USBINTF& intf, int index, int rc) {
    writedebug("%04x:%04x - String descriptor %d not read, rc=%d\n", intf.GetVendorID(),
               intf.GetProductID(), index, rc);
}

}  // namespace

int USBINTF::GetStringDescriptorAscii(unsigned char index, unsigned char* buf, int len) {
    if (buf == nullptr || len < 1) {
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    // A byte more than is asked for: a length of 255 cuts the last unit in half.
    std::array<unsigned char, max_string + 1> answer{};
    const int received = GetStringDescriptor(index, us_english, answer.data(), max_string);
    if (received < 1) {
        report_unread_string(*this, index, received);
        return received;
    }
    const int length = answer[0];
    if (answer[1] != LIBUSB_DT_STRING || length > received) {
        report_unread_string(*this, index, malformed_string);
        return malformed_string;
    }
    int count = 0;
    for (size_t offset = 2; static_cast<int>(offset) < length && count < len - 1; offset += 2) {
        buf[count++] = answer[offset + 1] != 0 ? static_cast<unsigned char>('?') : answer[offset];
    }
    buf[count] = '\0';
    return count;
}

char* USBINTF::GetSerialNumber() {
    std::memset(SerialNumber, 0, sizeof SerialNumber);
    if (descriptor.iSerialNumber != 0) {
        GetStringDescriptorAscii(descriptor.iSerialNumber,
                                 reinterpret_cast<unsigned char*>(SerialNumber),
                                 static_cast<int>(sizeof SerialNumber));
    }
    if (SerialNumber[0] == '\0') {
        std::snprintf(SerialNumber, sizeof SerialNumber, "NO SERIAL NUMBER");
    }
    return SerialNumber;
}

unsigned short USBINTF::GetUsageAndUsagePage(const char* text) {
    const int len = static_cast<int>(std::strlen(text));
    int pos = find_keyword("Usage", text, len);
    if (pos < 1) {
        return 0;
    }
    pos = skip_separators(text, len, pos);
    return pos < len ? static_cast<unsigned short>(get_hex_value(text, len, pos)) : uint16_t{0};
}

int USBINTF::GetFlashInterface() {
    if (config == nullptr || config->interface == nullptr) {
        return no_interface;
    }
    for (int position = 0; position < config->bNumInterfaces; ++position) {
        const libusb_interface& settings = config->interface[position];
        for (int i = 0; settings.altsetting != nullptr && i < settings.num_altsetting; ++i) {
            const libusb_interface_descriptor& setting = settings.altsetting[i];
            if (setting.bInterfaceClass != LIBUSB_CLASS_HID) {
                continue;
            }
            std::array<char, max_string> text{};
            const int count = GetStringDescriptorAscii(
                setting.iInterface, reinterpret_cast<unsigned char*>(text.data()), max_string);
            if (count > 0 && GetUsageAndUsagePage(text.data()) == flash_usage::interface) {
                writedebug("Flash interface on %d\n", position);
                return position;
            }
        }
    }
    return no_interface;
}
