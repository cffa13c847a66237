// Claiming an interface, its endpoints and its report layout.
#include "journal/output.h"
#include "usb/flshusbintf.h"
#include "usb/hidparse.h"
#include "usb/shared_field.h"

#include <algorithm>
#include <limits>

namespace {

constexpr unsigned int report_descriptor_timeout = 5000;
constexpr int last_pass = 3;
constexpr uint16_t packet_size_mask = 0x7FF;

// A standard request to an interface, answered by the device (USB 2.0, section 9.3).
constexpr uint8_t standard_interface_in = 0x81;

// HID descriptor (HID 1.11, section 6.2.1): the count of class descriptors and their entries.
constexpr int count_offset = 5;
constexpr int first_entry = 6;
constexpr int entry_size = 3;

const Report* find_usage(const USBINTF::ReportTable& table, int count, unsigned short usagePage,
                         unsigned short usage) {
    const auto end = table.begin() + count;
    const auto found = std::find_if(table.begin(), end, [=](const auto& report) {
        return report->UsagePage == usagePage && report->Usage == usage;
    });
    return found != end ? found->get() : nullptr;
}

unsigned char find_id(const USBINTF::ReportTable& table, int count, unsigned short usagePage,
                      unsigned short usage, unsigned short* size) {
    const Report* const report = find_usage(table, count, usagePage, usage);
    if (report == nullptr) {
        return 0;
    }
    *size = report->Size;
    return report->ReportID;
}

unsigned short find_size(const USBINTF::ReportTable& table, int count, unsigned char id) {
    const auto end = table.begin() + count;
    const auto found = std::find_if(table.begin(), end,
                                    [id](const auto& report) { return report->ReportID == id; });
    return found != end ? (*found)->Size : uint16_t{0};
}

// One kind of report: what the parser found, and the table that takes it.
struct ReportKind {
    const char* heading;
    int32_t parsed;
    HidReport* (HidParser::*get)(int);
    int& count;
    USBINTF::ReportTable& table;
};

void append_reports(HidParser& parser, const ReportKind& kind, int& ids_used) {
    for (int i = 0; i < kind.parsed && kind.count < USBINTF::max_reports; ++i) {
        const HidReport* const parsed = (parser.*kind.get)(i);
        if (parsed == nullptr) {
            continue;
        }
        // No transfer carries more than 65535 bytes.
        const auto size = static_cast<uint16_t>(
            std::min<uint32_t>(parsed->Size, std::numeric_limits<uint16_t>::max()));
        writedebug("    ReportID: %02d  Usage=%04x:%04x  Size=%d\n", parsed->ReportID,
                   parsed->UsagePage, parsed->Usage, size);
        if (parsed->ReportID != 0) {
            ids_used = 1;
        }
        kind.table[static_cast<size_t>(kind.count++)] = std::make_unique<Report>(
            Report{parsed->ReportID, parsed->UsagePage, parsed->Usage, size});
    }
}

}  // namespace

unsigned char USBINTF::FindInputReportID(unsigned short usagePage, unsigned short usage,
                                         unsigned short* size) {
    return find_id(InputReports, InputReportCount, usagePage, usage, size);
}

unsigned short USBINTF::FindInputReportSize(unsigned char id) {
    return find_size(InputReports, InputReportCount, id);
}

unsigned char USBINTF::FindOutputReportID(unsigned short usagePage, unsigned short usage,
                                          unsigned short* size) {
    return find_id(OutputReports, OutputReportCount, usagePage, usage, size);
}

uint16_t USBINTF::GetOutputReportSize(unsigned short usagePage, unsigned short usage) const {
    const Report* const report = find_usage(OutputReports, OutputReportCount, usagePage, usage);
    return report != nullptr ? report->Size : uint16_t{0};
}

unsigned short USBINTF::FindOutputReportSize(unsigned char id) {
    return find_size(OutputReports, OutputReportCount, id);
}

unsigned char USBINTF::FindFeatureReportID(unsigned short usagePage, unsigned short usage,
                                           unsigned short* size) {
    return find_id(FeatureReports, FeatureReportCount, usagePage, usage, size);
}

unsigned short USBINTF::FindFeatureReportSize(unsigned char id) {
    return find_size(FeatureReports, FeatureReportCount, id);
}

int USBINTF::ClaimDetaching(int n) {
    const int rc = p_libusb_claim_interface(handle, n);
    if (rc != LIBUSB_ERROR_BUSY) {
        return rc;
    }
    return DetachKernelDriver(n) == 0 ? p_libusb_claim_interface(handle, n) : rc;
}

int USBINTF::ClaimInterface(int n) {
    if (handle == nullptr) {
        return not_possible;
    }
    const int rc = ClaimDetaching(n);
    if (rc != 0) {
        return rc;
    }
    EndpointIndex = 0;
    store_shared(intfnum, static_cast<uint16_t>(n));
    if (config_descriptor_retrieved != 1) {
        return 0;
    }
    for (int count = 0; LearnClaimedInterface(n); ++count) {
        if (InterruptEndpointIn != 0 || InterruptEndpointOut != 0 || count == last_pass) {
            break;
        }
        writedebug("Reading USB information again (count=%d)\n", count);
        if (GetUsbConfig() != 0 || config_descriptor_retrieved != 1) {
            break;
        }
    }
    return 0;
}

const libusb_interface_descriptor* USBINTF::FindClaimedSetting(int n) const {
    if (config->interface == nullptr) {
        return nullptr;
    }
    for (int position = 0; position < config->bNumInterfaces; ++position) {
        const libusb_interface& settings = config->interface[position];
        if (settings.altsetting == nullptr || settings.num_altsetting <= 0) {
            continue;
        }
        const auto* const end = settings.altsetting + settings.num_altsetting;
        const bool is_claimed = std::any_of(settings.altsetting, end, [n](const auto& setting) {
            return setting.bInterfaceClass == LIBUSB_CLASS_HID && setting.bInterfaceNumber == n;
        });
        if (is_claimed) {
            return setting_number < settings.num_altsetting ? settings.altsetting + setting_number
                                                            : nullptr;
        }
    }
    return nullptr;
}

// One pass over the claimed interface. False when it has no endpoints to look for.
bool USBINTF::LearnClaimedInterface(int n) {
    const libusb_interface_descriptor* const setting = FindClaimedSetting(n);
    if (setting == nullptr) {
        return false;
    }
    if (setting->bInterfaceClass == LIBUSB_CLASS_HID) {
        GetHidReportData(setting);
    }
    writedebug("Endpoints: %d\n", setting->bNumEndpoints);
    if (setting->bNumEndpoints == 0 || setting->endpoint == nullptr) {
        return false;
    }
    for (int i = 0; i < setting->bNumEndpoints; ++i) {
        GetEndpoints(&setting->endpoint[i]);
    }
    return true;
}

void USBINTF::GetEndpoints(const libusb_endpoint_descriptor* ep) {
    if (ep == nullptr || EndpointIndex >= max_endpoints) {
        return;
    }
    Endpoint& entry = Endpoints[static_cast<size_t>(EndpointIndex)];
    entry = {ep->bEndpointAddress, ep->bmAttributes,
             static_cast<uint16_t>(ep->wMaxPacketSize & packet_size_mask)};
    writedebug("%d:  Address=%02x  Attributes=%02x  MaxPacketSize=%d\n", EndpointIndex,
               entry.Address, entry.Attributes, entry.MaxPacketSize);
    if ((entry.Attributes & ENDPOINT_TT_MASK) != ENDPOINT_TT_CONTROL) {
        const auto size = static_cast<uint8_t>(entry.MaxPacketSize);
        if ((entry.Address & LIBUSB_ENDPOINT_IN) != 0) {
            InterruptEndpointIn = entry.Address;
            InterruptEndpointInSize = size;
        } else {
            InterruptEndpointOut = entry.Address;
            InterruptEndpointOutSize = size;
        }
    }
    ++EndpointIndex;
}

void USBINTF::GetHidReportData(const libusb_interface_descriptor* alt) {
    const unsigned char* bytes = alt->extra;
    int remaining = bytes != nullptr ? alt->extra_length : 0;
    while (remaining >= 2 && bytes[0] >= 2 && bytes[1] != LIBUSB_DT_HID) {
        const int length = std::min<int>(bytes[0], remaining);
        bytes += length;
        remaining -= length;
    }
    if (remaining <= count_offset || bytes[0] < 2) {
        return;
    }
    const int descriptors = bytes[count_offset];
    for (int k = 0; k < descriptors; ++k) {
        const int offset = first_entry + entry_size * k;
        if (offset + entry_size > remaining) {
            return;
        }
        const unsigned char* const entry = bytes + offset;
        const int length = entry[1] | entry[2] << 8;
        if (entry[0] == LIBUSB_DT_REPORT && length <= max_report_descriptor) {
            RequestReportData(static_cast<unsigned int>(length));
        }
    }
}

int USBINTF::RequestReportData(unsigned int length) {
    const int received =
        ControlTransfer(standard_interface_in, LIBUSB_REQUEST_GET_DESCRIPTOR, LIBUSB_DT_REPORT << 8,
                        load_shared(intfnum), HidReport.data(), static_cast<uint16_t>(length),
                        report_descriptor_timeout);
    if (received < 1) {
        return received;
    }
    const auto parser = std::make_unique<HidParser>(
        HidReport.data(), static_cast<uint16_t>(std::min(received, max_report_descriptor)));
    parser->Parse();
    writedebug("Report Counts: Input=%d, Output=%d, Feature=%d\n", parser->InputReportIndex,
               parser->OutputReportIndex, parser->FeatureReportIndex);
    const ReportKind kinds[] = {
        {"Input", parser->InputReportIndex, &HidParser::GetInputReport, InputReportCount,
         InputReports},
        {"Output", parser->OutputReportIndex, &HidParser::GetOutputReport, OutputReportCount,
         OutputReports},
        {"Feature", parser->FeatureReportIndex, &HidParser::GetFeatureReport, FeatureReportCount,
         FeatureReports},
    };
    for (const ReportKind& kind : kinds) {
        if (kind.parsed > 0) {
            writedebug("%s Reports: %d\n", kind.heading, kind.parsed);
            append_reports(*parser, kind, ReportIdUsed);
        }
    }
    return received;
}
