// The report descriptors (HID 1.11 section 6.2.2) of the kinds of interfaces.
#include "model/device/descriptors.h"

#include <initializer_list>

namespace zelfsim {

namespace {

// Item prefixes without the size bits.
constexpr std::uint8_t usage_page = 0x04;
constexpr std::uint8_t usage_item = 0x08;
constexpr std::uint8_t report_id = 0x84;
constexpr std::uint8_t report_count = 0x94;

// Main items with one data byte.
constexpr std::uint8_t input = 0x81;
constexpr std::uint8_t output = 0x91;
constexpr std::uint8_t feature = 0xB1;
constexpr std::uint8_t variable = 0x02;

constexpr std::uint16_t flash_page = 0xFF45;
constexpr std::uint16_t flash_usage = 0xA000;
constexpr std::uint16_t command_usage = 0xA001;
constexpr std::uint16_t status_usage = 0xA002;

void add(Bytes& bytes, std::initializer_list<std::uint8_t> more) {
    bytes.insert(bytes.end(), more);
}

/// A short item with the two-byte form of its data.
void add_word(Bytes& bytes, std::uint8_t prefix, std::uint16_t value) {
    constexpr std::uint8_t two_bytes = 2;
    add(bytes, {static_cast<std::uint8_t>(prefix | two_bytes),
                static_cast<std::uint8_t>(value & 0xFF), static_cast<std::uint8_t>(value >> 8U)});
}

void add_report(Bytes& bytes, std::uint8_t id, std::uint16_t usage, std::size_t size,
                std::uint8_t item) {
    if (id != 0) {
        add(bytes, {report_id | 1, id});
    }
    add_word(bytes, usage_item, usage);
    add_word(bytes, report_count, static_cast<std::uint16_t>(size));
    add(bytes, {item, variable});
}

/// Opens an application collection of bytes.
void begin(Bytes& bytes, std::uint16_t page, std::uint16_t usage) {
    add_word(bytes, usage_page, page);
    add_word(bytes, usage_item, usage);
    add(bytes, {0xA1, 0x01, 0x15, 0x00, 0x26, 0xFF, 0x00, 0x75, 0x08});
}

Bytes flash_report(const FlashDescription& flash) {
    const bool ids = flash.report_ids;
    Bytes bytes;
    begin(bytes, flash_page, flash_usage);
    add_report(bytes, ids ? command_report_id : 0, command_usage, flash.output_size, output);
    add_report(bytes, ids ? status_report_id : 0, status_usage, status_size, input);
    add_report(bytes, ids ? data_report_id : 0, flash.feature_usage, flash.feature_size, feature);
    add(bytes, {0xC0});
    return bytes;
}

Bytes generic_report(const InterfaceDescription& interface) {
    constexpr std::size_t item_size = 8;
    Bytes bytes;
    begin(bytes, interface.usage_page, interface.usage);
    add_report(bytes, 0, interface.usage, item_size, input);
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
