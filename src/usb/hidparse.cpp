#include "usb/hidparse.h"

#include <algorithm>
#include <cstddef>
#include <limits>

namespace {

constexpr uint8_t long_item_prefix = 0xFE;
constexpr int long_item_header = 3;

enum ItemTypes : uint8_t { type_main = 0, type_global = 1, type_local = 2 };

enum MainTags : uint8_t {
    tag_input = 8,
    tag_output = 9,
    tag_collection = 10,
    tag_feature = 11,
    tag_end_collection = 12,
};

enum GlobalTags : uint8_t {
    tag_usage_page = 0,
    tag_logical_minimum = 1,
    tag_logical_maximum = 2,
    tag_physical_minimum = 3,
    tag_physical_maximum = 4,
    tag_unit_exponent = 5,
    tag_unit = 6,
    tag_report_size = 7,
    tag_report_id = 8,
    tag_report_count = 9,
    tag_push = 10,
    tag_pop = 11,
};

enum LocalTags : uint8_t {
    tag_usage = 0,
    tag_usage_minimum = 1,
    tag_usage_maximum = 2,
    tag_delimiter = 10,
};

// An item may announce more bytes than the descriptor has: past the end there are zeros.
uint8_t byte_at(const std::array<uint8_t, HidParser::max_descriptor>& descriptor, int position) {
    return position < HidParser::max_descriptor ? descriptor[static_cast<size_t>(position)]
                                                : uint8_t{0};
}

// A limit is 16 bits wide whatever the size of its item: a one-byte 0xFF is 255.
int32_t signed_limit(int32_t data) {
    return static_cast<int16_t>(data);
}

int32_t upper_limit(int32_t data, int32_t minimum) {
    return minimum < 0 ? signed_limit(data) : static_cast<uint16_t>(data);
}

// Whole bytes of a main item. An item of less than a byte counts as one.
uint32_t report_bytes(const GlobalStruct& global) {
    const uint64_t bytes = uint64_t{global.ReportCount} * global.ReportSize / 8;
    return static_cast<uint32_t>(
        std::clamp<uint64_t>(bytes, 1, std::numeric_limits<uint32_t>::max()));
}

HidReport* report_at(const HidParser::ReportList& list, int32_t count, int i) {
    return i >= 0 && i < count ? list[static_cast<size_t>(i)].get() : nullptr;
}

}  // namespace

HidParser::HidParser(const unsigned char* descriptor, unsigned short length)
    : DescriptorLength(std::min<uint16_t>(length, max_descriptor)) {
    std::copy_n(descriptor, DescriptorLength, Descriptor.begin());
}

HidReport* HidParser::GetInputReport(int i) {
    return report_at(InputReports, InputReportIndex, i);
}

HidReport* HidParser::GetOutputReport(int i) {
    return report_at(OutputReports, OutputReportIndex, i);
}

HidReport* HidParser::GetFeatureReport(int i) {
    return report_at(FeatureReports, FeatureReportIndex, i);
}

int HidParser::Parse() {
    Global = {};
    Local = {};
    int rc = 0;
    int position = 0;
    while (position < DescriptorLength) {
        if (byte_at(Descriptor, position) == long_item_prefix) {
            // No long item is defined. What follows one is read as a short item at once.
            ItemSize = byte_at(Descriptor, position + 1);
            ItemTag = byte_at(Descriptor, position + 2);
            position += ItemSize + long_item_header;
        }
        const uint8_t prefix = byte_at(Descriptor, position++);
        ItemSize = prefix & 3;
        ItemType = (prefix >> 2) & 3;
        ItemTag = static_cast<uint8_t>(prefix >> 4);

        const int data_position = std::min(position, max_descriptor - 1);
        uint32_t data = 0;
        const int data_bytes = ItemSize == 3 ? 4 : ItemSize;
        for (int i = 0; i < data_bytes; ++i) {
            data |= uint32_t{byte_at(Descriptor, position++)} << (8 * i);
        }
        ItemData = static_cast<int32_t>(data);
        // Four bytes 0xFF are how this parser says "no data": such an item is ignored.
        if (ItemData == -1) {
            continue;
        }
        unsigned char* bytes = &Descriptor[static_cast<size_t>(data_position)];
        if (ItemType == type_main) {
            rc |= parse_item_main(bytes);
        } else if (ItemType == type_global) {
            rc |= parse_item_global(bytes);
        } else if (ItemType == type_local) {
            rc |= parse_item_local(bytes);
        }
    }
    return rc;
}

int HidParser::parse_item_main(unsigned char* /*data*/) {
    int rc = 0;
    switch (ItemTag) {
        case tag_input:
        case tag_output:
        case tag_feature:
            rc = AddReport(Global.ReportID, ItemTag);
            break;
        case tag_collection:
            // Collections make no node: only the usages of the main items inside count.
            break;
        case tag_end_collection:
            LinkNodeCount = std::max(LinkNodeCount - 1, 0);
            break;
        default:
            return 0;
    }
    Local = {};
    return rc;
}

int HidParser::parse_item_global(unsigned char* /*data*/) {
    const auto number = static_cast<uint32_t>(ItemData);
    switch (ItemTag) {
        case tag_usage_page:
            Global.UsagePage = static_cast<uint16_t>(number);
            break;
        case tag_logical_minimum:
            Global.LogicalMinimum = signed_limit(ItemData);
            break;
        case tag_logical_maximum:
            Global.LogicalMaximum = upper_limit(ItemData, Global.LogicalMinimum);
            break;
        case tag_physical_minimum:
            Global.PhysicalMinimum = signed_limit(ItemData);
            break;
        case tag_physical_maximum:
            Global.PhysicalMaximum = upper_limit(ItemData, Global.PhysicalMinimum);
            break;
        case tag_unit_exponent:
            Global.UnitExponent = number;
            break;
        case tag_unit:
            Global.Unit = number;
            break;
        case tag_report_size:
            Global.ReportSize = number;
            break;
        case tag_report_id:
            Global.ReportID = static_cast<uint8_t>(number);
            break;
        case tag_report_count:
            Global.ReportCount = number;
            break;
        case tag_push:
            if (StackPtr < static_cast<int32_t>(GlobalStack.size())) {
                GlobalStack[static_cast<size_t>(StackPtr++)] =
                    std::make_unique<GlobalStruct>(Global);
            }
            break;
        case tag_pop:
            if (StackPtr > 0) {
                const auto top = std::move(GlobalStack[static_cast<size_t>(--StackPtr)]);
                Global = *top;
            }
            break;
        default:
            break;
    }
    return 0;
}

int HidParser::parse_item_local(unsigned char* /*data*/) {
    const auto number = static_cast<uint32_t>(ItemData);
    const UsageAndPage usage{
        static_cast<uint16_t>(number),
        ItemSize == 3 ? static_cast<uint16_t>(number >> 16) : Global.UsagePage};
    switch (ItemTag) {
        case tag_usage:
            AddUsage(usage);
            break;
        case tag_usage_minimum:
            Local.UsageMinimum = usage;
            break;
        case tag_usage_maximum:
            Local.UsageMaximum = usage;
            break;
        case tag_delimiter:
            if (number <= 1) {
                Local.Delimiter = number;
            }
            break;
        default:
            break;
    }
    return 0;
}

int HidParser::AddUsage(_UsageAndPage usage) {
    if (Local.UsageIndex >= std::size(Local.u)) {
        return -1;
    }
    Local.u[Local.UsageIndex++] = usage;
    return 0;
}

int HidParser::AddReport(unsigned int reportID, unsigned short type) {
    const UsageAndPage& minimum = Local.UsageMinimum;
    if (Local.UsageMaximum.Usage > minimum.Usage) {
        for (int usage = minimum.Usage; usage <= Local.UsageMaximum.Usage; ++usage) {
            if (AddUsage({static_cast<uint16_t>(usage), minimum.UsagePage}) != 0) {
                break;
            }
        }
    }
    ReportList& list = type == tag_output    ? OutputReports
                       : type == tag_feature ? FeatureReports
                                             : InputReports;
    int32_t& count = type == tag_output    ? OutputReportIndex
                     : type == tag_feature ? FeatureReportIndex
                                           : InputReportIndex;
    const auto id = static_cast<uint8_t>(reportID);
    for (uint32_t i = 0; i < Local.UsageIndex; ++i) {
        const UsageAndPage& usage = Local.u[i];
        if (count < max_reports) {
            list[static_cast<size_t>(count++)] = std::make_unique<HidReport>(
                HidReport{type, id, static_cast<uint8_t>(id != 0), report_bytes(Global),
                          Global.ReportSize, Global.ReportCount, usage.Usage, usage.UsagePage});
        }
        if (UsageIndex < max_reports) {
            Usages[static_cast<size_t>(UsageIndex++)] = {usage, id, type};
        }
    }
    return 0;
}
