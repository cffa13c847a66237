#include "usb/zelflshhid.h"

#include "flash_protocol.h"
#include "journal/output.h"
#include "usb/shared_field.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <new>

namespace {

constexpr unsigned int transfer_timeout = 5000;
constexpr unsigned int one_day = 86400000;
constexpr int receive_size = 10240;

bool is_open(libusb_device_handle* handle) {
    return handle != nullptr && handle != closed_hid_handle();
}

unsigned char* bytes_of(char* buffer) {
    return reinterpret_cast<unsigned char*>(buffer);
}

int report_read_failure(int rc) {
    switch (rc) {
        case LIBUSB_ERROR_PIPE:
            writelog(0, "Read end point halted, rc=%d\n", rc);
            return hid_device_gone;
        case LIBUSB_ERROR_OVERFLOW:
            writelog(0, "Read device overflow, rc=%d\n", rc);
            return hid_read_failed;
        case LIBUSB_ERROR_NO_DEVICE:
            writelog(0, "Read device not connected, rc=%d\n", rc);
            return hid_device_gone;
        case LIBUSB_ERROR_IO:
            writelog(0, "Read I/O Error, rc=%d\n", rc);
            return hid_read_failed;
        default:
            writelog(0, "Read failed, rc=%d\n", rc);
            return hid_read_failed;
    }
}

int report_write_failure(int rc, unsigned short usage) {
    switch (rc) {
        case LIBUSB_ERROR_NO_DEVICE:
            writelog(0, "Write device not connected, rc=%d (usage=%04x)\n", rc, usage);
            return hid_device_gone;
        case LIBUSB_ERROR_TIMEOUT:
            writelog(0, "Write timed out, rc=%d (usage=%04x)\n", rc, usage);
            return hid_write_failed;
        case LIBUSB_ERROR_PIPE:
            writelog(0, "Write pipe error, rc=%d (usage=%04x)\n", rc, usage);
            return hid_write_failed;
        default:
            writelog(0, "Write failed, rc=%d (usage=%04x)\n", rc, usage);
            return hid_write_failed;
    }
}

int report_set_feature_failure(int rc, unsigned short usagePage, unsigned short usage) {
    const char* what = "write failed";
    if (rc == LIBUSB_ERROR_NO_DEVICE) {
        what = "device not connected";
    } else if (rc == LIBUSB_ERROR_TIMEOUT) {
        what = "timed out";
    } else if (rc == LIBUSB_ERROR_PIPE) {
        what = "pipe error";
    }
    writedebug("Set feature %s, rc=%d (usagePage=%04x usage=%04x)\n", what, rc, usagePage, usage);
    return rc == LIBUSB_ERROR_NO_DEVICE ? hid_device_gone : hid_set_feature_failed;
}

int report_get_feature_failure(int rc, unsigned short usagePage, unsigned short usage) {
    switch (rc) {
        case LIBUSB_ERROR_NO_DEVICE:
            writedebug("Get feature device not connected (usagePage=%04x, usage=%04x)\n", usagePage,
                       usage);
            return hid_device_gone;
        case LIBUSB_ERROR_TIMEOUT:
            writedebug("Get feature timeout (usagePage=%04x, usage=%04x)\n", usagePage, usage);
            return hid_get_feature_failed;
        case LIBUSB_ERROR_PIPE:
            writedebug("Get feature pipe error (usagePage=%04x, usage=%04x)\n", usagePage, usage);
            return hid_get_feature_failed;
        default:
            writedebug("Get feature write failed rc=%d, (usagePage=%04x, usage=%04x)\n", rc,
                       usagePage, usage);
            return hid_get_feature_failed;
    }
}

}  // namespace

libusb_device_handle* closed_hid_handle() {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): a mark that is never used as an address
    return reinterpret_cast<libusb_device_handle*>(std::intptr_t{-1});
}

HIDDEVICE2::HIDDEVICE2(unsigned short vendorID, unsigned short productID, const char* devicePath)
    : ReadHandle(closed_hid_handle()),
      WriteHandle(closed_hid_handle()),
      VendorID(vendorID),
      ProductID(productID) {
    std::snprintf(DevicePath, sizeof DevicePath, "%s", devicePath);
    if (OutputLevel >= 2 && vendorID != 0 && productID != 0) {
        // The labels are swapped; readers of old logs know them so.
        writedebug("HIDDEVICE2(PID=%x, VID=%x DevicePath=%s) created\n", vendorID, productID,
                   DevicePath);
    }
    intf.reset(new (std::nothrow) USBINTF);
    if (intf == nullptr) {
        return;
    }
    const int rc = intf->OpenDevice(DevicePath);
    if (rc != 0) {
        OpenRc = 1;
        writedebug("Create of '%s' failed, rc=%d\n", DevicePath, rc);
        return;
    }
    std::snprintf(SerialNumber, sizeof SerialNumber, "%s", intf->GetSerialNumber());
    OpenRc = 0;
    VersionNumber = intf->GetVersionNumber();
    SetDeviceInfo(DevicePath);
}

HIDDEVICE2::~HIDDEVICE2() {
    if (OutputLevel > 1 && VendorID != 0 && ProductID != 0) {
        writedebug("~HIDDEVICE(VID=%x, PID=%x, Path=%s) exiting\n", VendorID, ProductID,
                   DevicePath);
    }
    CloseReadHandle();
    CloseWriteHandle();
    if (intf != nullptr) {
        intf->CloseDevice();
    }
}

void HIDDEVICE2::SetDeviceInfo(const char* /*path*/) {
    if (OpenRc != 0) {
        writedebug("SetDeviceInfo - exited  rc=0x%x\n", static_cast<unsigned int>(OpenRc));
    }
}

bool HIDDEVICE2::IsFlashInterfaceOpen() const {
    return intf != nullptr && OpenRc == 0 && intf->GetUsage() == flash_usage::interface;
}

int HIDDEVICE2::OpenDevice(const unsigned char* mode) {
    if (IsFlashInterfaceOpen()) {
        const auto* const text = reinterpret_cast<const char*>(mode);
        if (std::strcmp(text, "r") == 0) {
            store_shared(ReadHandle, intf->OpenReadHandle());
        } else if (std::strcmp(text, "w") == 0) {
            store_shared(WriteHandle, intf->OpenWriteHandle());
        }
        return 0;
    }
    constexpr int failed = 1;
    if (VendorID != 0 && ProductID != 0) {
        writedebug("OpenDevice(VID=%x, PID=0x%x) failed, rc=0x%x\n", VendorID, ProductID,
                   static_cast<unsigned int>(failed));
    }
    CloseReadHandle();
    CloseWriteHandle();
    return failed;
}

libusb_device_handle* HIDDEVICE2::GetReadHandle() {
    libusb_device_handle* const current = load_shared(ReadHandle);
    return current != nullptr ? current : closed_hid_handle();
}

libusb_device_handle* HIDDEVICE2::GetWriteHandle() {
    libusb_device_handle* const current = load_shared(WriteHandle);
    return current != nullptr ? current : closed_hid_handle();
}

// The mark comes first: a reader whose transfer the release ends must find the handle closed.
void HIDDEVICE2::CloseReadHandle() {
    if (is_open(load_shared(ReadHandle))) {
        store_shared(ReadHandle, closed_hid_handle());
        if (intf != nullptr) {
            intf->CloseReadHandle();
        }
    }
}

void HIDDEVICE2::CloseWriteHandle() {
    if (is_open(load_shared(WriteHandle))) {
        store_shared(WriteHandle, closed_hid_handle());
        if (intf != nullptr) {
            intf->CloseWriteHandle();
        }
    }
}

int HIDDEVICE2::Write(unsigned short usagePage, unsigned short usage, char* buffer,
                      unsigned short length) {
    writedebug("Write: entered upage=0x%x u=0x%x, length=%d\n", usagePage, usage, length);
    const bool is_reset = is_command(command_row(FlashCommand::reset), {buffer, length});
    int result = hid_device_gone;
    if (intf == nullptr) {
        writelog(0, "Write device not connected, rc=%d (usagePage=%04x, usage=%04x)\n", 0,
                 usagePage, usage);
    } else {
        const int rc =
            intf->HidSetOutputReport(usagePage, usage, bytes_of(buffer), length, transfer_timeout);
        if (rc > 0) {
            return hid_success;
        }
        result = report_write_failure(rc, usage);
    }
    if (is_reset) {
        writelog(0, "Reset sent, write failure expected!\n");
        return hid_success;
    }
    return result;
}

// Reads until something arrives, an error ends it or another thread has closed the read handle.
int HIDDEVICE2::ReceiveReport(unsigned char* buffer, int length, int& transferred) {
    for (;;) {
        unsigned char flag = 0;
        transferred = 0;
        int rc = intf->HidInterruptRead(buffer, length, &transferred, &flag, one_day);
        const bool is_closed = !is_open(load_shared(ReadHandle));
        if (rc == LIBUSB_ERROR_TIMEOUT || (rc == LIBUSB_ERROR_OTHER && transferred == 0)) {
            rc = 0;
        }
        if (rc == LIBUSB_ERROR_INVALID_PARAM && is_closed) {
            return LIBUSB_ERROR_NO_DEVICE;
        }
        if (rc != 0 || transferred > 0) {
            return rc;
        }
        if (is_closed) {
            return LIBUSB_ERROR_NO_DEVICE;
        }
    }
}

int HIDDEVICE2::Read(unsigned short usagePage, unsigned short usage, char* buffer,
                     unsigned short length) {
    writedebug("Read: entered upage=0x%x u=0x%x, length=%d\n", usagePage, usage, length);
    if (!is_open(load_shared(ReadHandle))) {
        OpenDevice(reinterpret_cast<const unsigned char*>("r"));
        if (!is_open(load_shared(ReadHandle))) {
            return hid_success;
        }
    }
    if (intf == nullptr) {
        writelog(0, "Read no HID device, rc=%d\n", 0);
        return hid_device_gone;
    }
    std::memset(buffer, 0, length);
    std::array<unsigned char, receive_size> received{};
    int transferred = 0;
    const int rc = ReceiveReport(received.data(), receive_size, transferred);
    if (rc != 0) {
        return report_read_failure(rc);
    }
    std::memcpy(buffer, received.data(),
                static_cast<size_t>(std::min<int>({transferred, length, receive_size})));
    return hid_success;
}

int HIDDEVICE2::SetFeature(unsigned short usagePage, unsigned short usage, char* buffer,
                           unsigned short length) {
    writedebug("SetFeature - entered upage=0x%x u=0x%x\n", usagePage, usage);
    int result = hid_device_gone;
    if (intf == nullptr) {
        writedebug("Set feature invalid handle, rc=%d (usagePage=%04x usage=%04x)\n", 0, usagePage,
                   usage);
    } else {
        const int rc =
            intf->HidSetFeatureReport(usagePage, usage, bytes_of(buffer), length, transfer_timeout);
        result = rc == length ? hid_success : report_set_feature_failure(rc, usagePage, usage);
    }
    writedebug("SetFeature - exited  rc=0x%x\n", static_cast<unsigned int>(result));
    return result;
}

int HIDDEVICE2::GetFeature(unsigned short usagePage, unsigned short usage, char* buffer,
                           unsigned short length) {
    writedebug("GetFeature - entered upage=0x%x u=0x%x\n", usagePage, usage);
    int result = hid_device_gone;
    if (intf == nullptr) {
        writedebug("Get feature invalid handle (usagePage=%04x, usage=%04x)\n", usagePage, usage);
    } else {
        const int rc =
            intf->HidGetFeatureReport(usagePage, usage, bytes_of(buffer), length, transfer_timeout);
        result = rc >= 1 ? hid_success : report_get_feature_failure(rc, usagePage, usage);
    }
    writedebug("<GetFeature - exited  rc=0x%x\n", static_cast<unsigned int>(result));
    return result;
}
