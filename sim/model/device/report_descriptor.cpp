// The report descriptors (HID 1.11 section 6.2.2) of the kinds of interfaces.
#include "model/device/descriptors.h"

#include <initializer_list>

namespace zelfsim {

namespace {

// Item prefixes without the size bits.
constexpr std::uint8_t kUsagePage = 0x04;
constexpr std::uint8_t kUsage = 0x08;
constexpr std::uint8_t kReportId = 0x84;
constexpr std::uint8_t kReportCount = 0x94;

// Main items with one data byte.
constexpr std::uint8_t kInput = 0x81;
constexpr std::uint8_t kOutput = 0x91;
constexpr std::uint8_t kFeature = 0xB1;
constexpr std::uint8_t kVariable = 0x02;

constexpr std::uint16_t kFlashPage = 0xFF45;
constexpr std::uint16_t kFlashUsage = 0xA000;
constexpr std::uint16_t kCommandUsage = 0xA001;
constexpr std::uint16_t kStatusUsage = 0xA002;

void add(Bytes& bytes, std::initializer_list<std::uint8_t> more) {
    bytes.insert(bytes.end(), more);
}

/// A short item with the two-byte form of its data.
void add_word(Bytes& bytes, std::uint8_t prefix, std::uint16_t value) {
    constexpr std::uint8_t kTwoBytes = 2;
    add(bytes, {static_cast<std::uint8_t>(prefix | kTwoBytes),
                static_cast<std::uint8_t>(value & 0xFF), static_cast<std::uint8_t>(value >> 8U)});
}

void add_report(Bytes& bytes, std::uint8_t id, std::uint16_t usage, std::size_t size,
                std::uint8_t item) {
    if (id != 0) {
        add(bytes, {kReportId | 1, id});
    }
    add_word(bytes, kUsage, usage);
    add_word(bytes, kReportCount, static_cast<std::uint16_t>(size));
    add(bytes, {item, kVariable});
}

/// Opens an application collection of bytes.
void begin(Bytes& bytes, std::uint16_t page, std::uint16_t usage) {
    add_word(bytes, kUsagePage, page);
    add_word(bytes, kUsage, usage);
    add(bytes, {0xA1, 0x01, 0x15, 0x00, 0x26, 0xFF, 0x00, 0x75, 0x08});
}

Bytes flash_report(const FlashDescription& flash) {
    const bool ids = flash.report_ids;
    Bytes bytes;
    begin(bytes, kFlashPage, kFlashUsage);
    add_report(bytes, ids ? kCommandReport : 0, kCommandUsage, flash.output_size, kOutput);
    add_report(bytes, ids ? kStatusReport : 0, kStatusUsage, kStatusSize, kInput);
    add_report(bytes, ids ? kDataReport : 0, flash.feature_usage, flash.feature_size, kFeature);
    add(bytes, {0xC0});
    return bytes;
}

Bytes generic_report(const InterfaceDescription& interface) {
    constexpr std::size_t kSize = 8;
    Bytes bytes;
    begin(bytes, interface.usage_page, interface.usage);
    add_report(bytes, 0, interface.usage, kSize, kInput);
    add(bytes, {0xC0});
    return bytes;
}

/// The boot keyboard of HID 1.11 appendix B.1.
Bytes keyboard_report() {
    return {0x05, 0x01, 0x09, 0x06, 0xA1, 0x01, 0x05, 0x07, 0x19, 0xE0, 0x29, 0xE7, 0x15,
            0x00, 0x25, 0x01, 0x75, 0x01, 0x95, 0x08, 0x81, 0x02, 0x95, 0x01, 0x75, 0x08,
            0x81, 0x01, 0x95, 0x05, 0x75, 0x01, 0x05, 0x08, 0x19, 0x01, 0x29, 0x05, 0x91,
            0x02, 0x95, 0x01, 0x75, 0x03, 0x91, 0x01, 0x95, 0x06, 0x75, 0x08, 0x15, 0x00,
            0x25, 0x65, 0x05, 0x07, 0x19, 0x00, 0x29, 0x65, 0x81, 0x00, 0xC0};
}

/// The boot mouse of HID 1.11 appendix B.2.
Bytes mouse_report() {
    return {0x05, 0x01, 0x09, 0x02, 0xA1, 0x01, 0x09, 0x01, 0xA1, 0x00, 0x05, 0x09, 0x19,
            0x01, 0x29, 0x03, 0x15, 0x00, 0x25, 0x01, 0x95, 0x03, 0x75, 0x01, 0x81, 0x02,
            0x95, 0x01, 0x75, 0x05, 0x81, 0x01, 0x05, 0x01, 0x09, 0x30, 0x09, 0x31, 0x15,
            0x81, 0x25, 0x7F, 0x75, 0x08, 0x95, 0x02, 0x81, 0x06, 0xC0, 0xC0};
}

}  // namespace

Bytes report_descriptor(const DeviceDescription& device, const InterfaceDescription& interface) {
    switch (interface.kind) {
        case InterfaceKind::flash:
            return device.flash ? flash_report(*device.flash) : Bytes{};
        case InterfaceKind::keyboard:
            return keyboard_report();
        case InterfaceKind::mouse:
            return mouse_report();
        case InterfaceKind::hid:
            return generic_report(interface);
        case InterfaceKind::storage:
        case InterfaceKind::hub:
            break;
    }
    return {};
}

}  // namespace zelfsim
