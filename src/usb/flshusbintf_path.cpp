// Device paths: the fields of a path, and the device that it names.
#include "usb/flshusbintf.h"
#include "usb/flshusbintf_text.h"

#include <cstdio>
#include <cstring>

namespace {

int type_of_path(const char* path) {
    struct Prefix {
        const char* text;
        int type;
    };
    constexpr Prefix prefixes[] = {
        {"//?/hid", DEVICE_TYPE_HID}, {"//?/usb", DEVICE_TYPE_USB}, {"//?/hub", DEVICE_TYPE_HUB}};
    for (const Prefix& prefix : prefixes) {
        if (std::strstr(path, prefix.text) != nullptr) {
            return prefix.type;
        }
    }
    return DEVICE_TYPE_NONE;
}

}  // namespace

int USBINTF::find_keyword(const char* keyword, const char* text, int len) {
    return find_keyword_in(keyword, text, len);
}

int USBINTF::get_value(const char* text, int len, int pos) {
    return decimal_value_at(text, len, pos);
}

unsigned int USBINTF::get_hex_value(const char* text, int len, int pos) {
    return hex_value_at(text, len, pos);
}

void USBINTF::ParsePath(const char* path) {
    const int len = static_cast<int>(std::strlen(path));
    const auto decimal = [&](const char* keyword) {
        const int pos = find_keyword(keyword, path, len);
        return static_cast<uint8_t>(pos >= 1 ? get_value(path, len, pos) : 0);
    };
    const auto hexadecimal = [&](const char* keyword) {
        const int pos = find_keyword(keyword, path, len);
        return static_cast<uint16_t>(pos >= 1 ? get_hex_value(path, len, pos) : 0);
    };
    VendorID = hexadecimal("vid_");
    ProductID = hexadecimal("pid_");
    Interface = decimal("mi_");
    BusNumber = decimal("bus_");
    DeviceAddress = decimal("dev_");
    if (find_keyword("ec_", path, len) >= 1) {
        VersionNumber = hexadecimal("ec_");
    }
    HubNumber = decimal("hub_");
    PortNumber = decimal("port_");
    UsagePage = hexadecimal("usagepage_");
    Usage = hexadecimal("usage_");
}

int USBINTF::OpenMatchingDevice(libusb_device** list, ssize_t count) {
    int rc = not_possible;
    for (ssize_t i = 0; i < count && list[i] != nullptr; ++i) {
        libusb_device* const dev = list[i];
        if (GetDeviceBusNumber(dev) != BusNumber || GetDeviceAddress(dev) != DeviceAddress ||
            GetDeviceInformation(dev) != 0 || descriptor.idVendor != VendorID ||
            descriptor.idProduct != ProductID) {
            continue;
        }
        rc = p_libusb_open(dev, &handle);
        if (rc == 0) {
            break;
        }
        handle = nullptr;
    }
    return rc;
}

int USBINTF::OpenDevice(char* path) {
    if (handle != nullptr || path == nullptr) {
        return not_possible;
    }
    std::snprintf(DevicePath, sizeof DevicePath, "%s", path);
    device_type = type_of_path(path);
    ParsePath(path);

    libusb_device** list = nullptr;
    const ssize_t count = GetDeviceList(list);
    // A list that could not be given is not there to be freed either.
    if (count < 0 || list == nullptr) {
        return not_possible;
    }
    const int rc = OpenMatchingDevice(list, count);
    if (rc == 0) {
        GetUsbConfig();
    }
    FreeDeviceList(list);
    return rc;
}
