// The HID transfers of an interface.
#include "flash_protocol.h"
#include "journal/output.h"
#include "usb/flshusbintf.h"
#include "usb/shared_field.h"

#include <sys/select.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

namespace {

// Class requests to an interface (USB 2.0, section 9.3; HID 1.11, section 7.2).
constexpr uint8_t class_interface_out = 0x21;
constexpr uint8_t class_interface_in = 0xA1;

constexpr unsigned short flash_output_size = 263;

constexpr int answer_polls = 100;
constexpr int polls_in_time = 9;
constexpr int poll_microseconds = 10000;

using Buffer = std::unique_ptr<unsigned char[]>;

// Zeroed, null when there is no memory.
Buffer allocate(int size) {
    return Buffer(new (std::nothrow) unsigned char[static_cast<size_t>(size)]());
}

// The flag between the reader's read and the writer's poll is plain and takes no lock: a poll that
// misses it sees it ten milliseconds later.
// These two are the place that the thread sanitizer's suppression names (tests/tsan.supp).
void store_interrupt_response(int& flag, int value) {
    flag = value;
}

int load_interrupt_response(const int& flag) {
    return flag;
}

void sleep_one_poll() {
    timeval pause{0, poll_microseconds};
    select(0, nullptr, nullptr, nullptr, &pause);
}

uint16_t report_value(int type, unsigned char id) {
    return static_cast<uint16_t>(type << 8 | id);
}

}  // namespace

int USBINTF::SetReport(int type, unsigned char id, uint16_t interface_number, unsigned char* data,
                       int length, unsigned int timeout) {
    return ControlTransfer(class_interface_out, LIBHID_REQUEST_SET_REPORT, report_value(type, id),
                           interface_number, data, static_cast<uint16_t>(length), timeout);
}

int USBINTF::GetReport(int type, unsigned char id, unsigned char* data, int length,
                       unsigned int timeout) {
    const uint16_t claimed = load_shared(intfnum);
    if (claimed == no_interface) {
        return not_possible;
    }
    return ControlTransfer(class_interface_in, LIBHID_REQUEST_GET_REPORT, report_value(type, id),
                           claimed, data, static_cast<uint16_t>(length), timeout);
}

// The first report to a freshly opened device may be lost: a device that has not answered in time
// gets it again. Once any answer was seen no report of the run waits any more.
bool USBINTF::FirstAnswerInTime(bool waits) {
    static int first_time = 1;
    if (first_time != 1 || !waits) {
        return true;
    }
    for (int poll = 1; poll <= answer_polls; ++poll) {
        sleep_one_poll();
        if (load_interrupt_response(interrupt_response) == 1) {
            first_time = 0;
            return poll <= polls_in_time;
        }
    }
    return false;
}

int USBINTF::HidSetOutputReport(unsigned short usagePage, unsigned short usage, unsigned char* data,
                                unsigned short length, unsigned int timeout) {
    const uint16_t claimed = load_shared(intfnum);
    if (claimed == no_interface || handle == nullptr) {
        return not_possible;
    }
    unsigned short size = 0;
    const unsigned char id = FindOutputReportID(usagePage, usage, &size);
    const int id_bytes = ReportIdUsed == 1 ? 1 : 0;
    // A transfer carries at most 65535 bytes, the ID byte among them.
    const int n = std::min<int>({length, size, std::numeric_limits<uint16_t>::max() - id_bytes});

    p_libusb_claim_interface(handle, claimed);
    const Buffer buffer = allocate(size + 1);
    if (buffer == nullptr) {
        return SetReport(LIBHID_RT_OUTPUT, id, claimed, data, n, timeout);
    }
    if (id_bytes == 1) {
        buffer[0] = id;
    }
    std::copy_n(data, n, &buffer[static_cast<size_t>(id_bytes)]);
    const int send_length = n + id_bytes;

    store_interrupt_response(interrupt_response, 0);
    int rc = SetReport(LIBHID_RT_OUTPUT, id, claimed, buffer.get(), send_length, timeout);
    if (rc != send_length) {
        writedebug("%04x:%04x-%02x:%04x:%04x - HidSetOutputReport: error response, rc=%d\n",
                   VendorID, ProductID, DeviceAddress, usagePage, usage, rc);
        return rc;
    }
    if (!FirstAnswerInTime(usage != flash_usage::command)) {
        writedebug("%04x:%04x-%02x:%04x:%04x - Resending %d bytes\n", VendorID, ProductID,
                   DeviceAddress, usagePage, usage, send_length);
        rc = SetReport(LIBHID_RT_OUTPUT, id, claimed, buffer.get(), send_length, timeout);
    }
    return rc == send_length ? n : rc;
}

int USBINTF::HidSetOutputReport(unsigned char reportID, unsigned char* data, unsigned short length,
                                unsigned int timeout) {
    const uint16_t claimed = load_shared(intfnum);
    if (claimed == no_interface) {
        return not_possible;
    }
    const unsigned short size = FindOutputReportSize(reportID);
    const int n = std::min(length, size);
    const Buffer buffer = allocate(size);
    if (buffer == nullptr) {
        return SetReport(LIBHID_RT_OUTPUT, reportID, claimed, data, n, timeout);
    }
    std::copy_n(data, n, buffer.get());
    const int rc = SetReport(LIBHID_RT_OUTPUT, reportID, claimed, buffer.get(), size, timeout);
    return rc == size ? n : rc;
}

int USBINTF::WriteFlashInterface(unsigned char* data, unsigned short length, unsigned int timeout) {
    const int flash_interface = GetFlashInterface();
    if (flash_interface == no_interface || handle == nullptr ||
        ClaimDetaching(flash_interface) != 0) {
        return not_possible;
    }
    unsigned short size = 0;
    const unsigned char id = FindOutputReportID(flash_usage::page, flash_usage::command, &size);
    if (size == 0) {
        size = flash_output_size;
    }
    const auto interface_number = static_cast<uint16_t>(flash_interface);
    const int n = std::min(length, size);
    int rc = 0;
    if (const Buffer buffer = allocate(size + 1); buffer == nullptr) {
        rc = SetReport(LIBHID_RT_OUTPUT, id, interface_number, data, n, timeout);
    } else {
        ReportIdUsed = 0;
        std::copy_n(data, n, buffer.get());
        rc = SetReport(LIBHID_RT_OUTPUT, id, interface_number, buffer.get(), n, timeout);
        if (rc == n) {
            rc = 0;
        } else {
            writedebug("%04x:%04x-%02x:%04x:%04x - WriteFlashInterface: error response, rc=%d\n",
                       VendorID, ProductID, DeviceAddress, flash_usage::page, flash_usage::command,
                       rc);
        }
    }
    p_libusb_release_interface(handle, flash_interface);
    return rc;
}

int USBINTF::HidInterruptRead(unsigned char* data, int length, int* actual, unsigned char* reportID,
                              unsigned int timeout) {
    *actual = 0;
    *reportID = 0;
    if (InterruptEndpointIn == 0 || load_shared(intfnum) == no_interface) {
        return not_possible;
    }
    const int size = InterruptEndpointInSize;
    const Buffer buffer = allocate(size);
    if (buffer == nullptr) {
        return not_possible;
    }
    const int rc = InterruptTransfer(InterruptEndpointIn, buffer.get(), size, actual, timeout);
    if (rc == 0 && *actual < 1) {
        // An empty packet looks like a time-out.
        writedebug("%04x:%04x - USB Success with actual length %d bytes\n", VendorID, ProductID,
                   *actual);
        return LIBUSB_ERROR_TIMEOUT;
    }
    if (rc == 0) {
        store_interrupt_response(interrupt_response, 1);
        *actual = std::min(*actual, size);
        const unsigned char* payload = buffer.get();
        if (ReportIdUsed == 1 && *actual > 0) {
            *reportID = *payload++;
            --*actual;
        }
        std::copy_n(payload, std::clamp(length, 0, *actual), data);
    } else if (rc != LIBUSB_ERROR_TIMEOUT) {
        writedebug("%04x:%04x - USB returned with rc=%d, actual length %d bytes\n", VendorID,
                   ProductID, rc, *actual);
    }
    return rc;
}

int USBINTF::HidInterruptWrite(unsigned char* data, int length, int* actual, unsigned int timeout) {
    return InterruptEndpointOut != 0 && load_shared(intfnum) != no_interface
               ? InterruptTransfer(InterruptEndpointOut, data, length, actual, timeout)
               : not_possible;
}

int USBINTF::HidGetInputReport(unsigned char reportID, unsigned char* data, unsigned short length,
                               unsigned int timeout) {
    return GetReport(LIBHID_RT_INPUT, reportID, data,
                     std::min(length, FindInputReportSize(reportID)), timeout);
}

int USBINTF::HidGetInputReport(unsigned short usagePage, unsigned short usage, unsigned char* data,
                               unsigned short length, unsigned int timeout) {
    unsigned short size = 0;
    const unsigned char id = FindInputReportID(usagePage, usage, &size);
    return GetReport(LIBHID_RT_INPUT, id, data, length, timeout);
}

int USBINTF::HidGetFeatureReport(unsigned char reportID, unsigned char* data, unsigned short length,
                                 unsigned int timeout) {
    return GetReport(LIBHID_RT_FEATURE, reportID, data,
                     std::min(length, FindFeatureReportSize(reportID)), timeout);
}

int USBINTF::HidGetFeatureReport(unsigned short usagePage, unsigned short usage,
                                 unsigned char* data, unsigned short length, unsigned int timeout) {
    if (load_shared(intfnum) == no_interface) {
        return not_possible;
    }
    unsigned short size = 0;
    const unsigned char id = FindFeatureReportID(usagePage, usage, &size);
    const Buffer buffer = allocate(size);
    if (buffer == nullptr) {
        return not_possible;
    }
    const int rc = GetReport(LIBHID_RT_FEATURE, id, buffer.get(), size, timeout);
    if (rc > 0) {
        const int id_bytes = ReportIdUsed == 1 ? 1 : 0;
        const int copied = std::min<int>({rc, length, size}) - id_bytes;
        if (copied > 0) {
            std::copy_n(&buffer[static_cast<size_t>(id_bytes)], copied, data);
        }
    }
    return rc;
}

int USBINTF::HidSetFeatureReport(unsigned char reportID, unsigned char* data, unsigned short length,
                                 unsigned int timeout) {
    const uint16_t claimed = load_shared(intfnum);
    return claimed != no_interface
               ? SetReport(LIBHID_RT_FEATURE, reportID, claimed, data,
                           std::min(length, FindFeatureReportSize(reportID)), timeout)
               : not_possible;
}

int USBINTF::HidSetFeatureReport(unsigned short usagePage, unsigned short usage,
                                 unsigned char* data, unsigned short length, unsigned int timeout) {
    const uint16_t claimed = load_shared(intfnum);
    unsigned short size = 0;
    const unsigned char id = FindFeatureReportID(usagePage, usage, &size);
    return claimed != no_interface
               ? SetReport(LIBHID_RT_FEATURE, id, claimed, data, std::min(length, size), timeout)
               : not_possible;
}
