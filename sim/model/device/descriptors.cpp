#include "model/device/descriptors.h"

#include "common/utf8.h"

#include <algorithm>
#include <string>

namespace zelfsim {

namespace {

constexpr std::uint8_t class_hid = 3;
constexpr std::uint8_t class_storage = 8;
constexpr std::uint8_t class_hub = 9;
constexpr std::uint8_t transfer_bulk = 2;
constexpr std::uint8_t transfer_interrupt = 3;
constexpr std::uint8_t control_packet = 64;
constexpr std::uint8_t bulk_packet = 64;

constexpr std::uint8_t manufacturer_string = 1;
constexpr std::uint8_t product_string = 2;
constexpr std::uint8_t serial_string = 3;
constexpr std::uint8_t first_interface_string = 4;

std::uint8_t low(std::size_t value) {
    return static_cast<std::uint8_t>(value & 0xFF);
}
std::uint8_t high(std::size_t value) {
    return static_cast<std::uint8_t>(value >> 8U & 0xFF);
}

void add(Bytes& bytes, const Bytes& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

std::size_t position(const DeviceDescription& device, const InterfaceDescription& interface) {
    for (std::size_t index = 0; index < device.interfaces.size(); ++index) {
        if (device.interfaces[index].number == interface.number) {
            return index;
        }
    }
    return 0;
}

struct ClassCode {
    std::uint8_t code;
    std::uint8_t subclass;
    std::uint8_t protocol;
};

ClassCode class_code(InterfaceKind kind) {
    switch (kind) {
        case InterfaceKind::keyboard:
            return {class_hid, 1, 1};
        case InterfaceKind::mouse:
            return {class_hid, 1, 2};
        case InterfaceKind::storage:
            return {class_storage, 6, 0x50};
        case InterfaceKind::hub:
            return {class_hub, 0, 0};
        case InterfaceKind::flash:
        case InterfaceKind::hid:
            break;
    }
    return {class_hid, 0, 0};
}

void add_endpoint(Bytes& bytes, std::uint8_t address, std::uint8_t kind, std::uint8_t packet) {
    constexpr std::uint8_t interval = 10;
    add(bytes, {7, descriptor_endpoint, address, kind, packet, 0,
                kind == transfer_interrupt ? interval : std::uint8_t{0}});
}

Bytes interface_descriptors(const DeviceDescription& device,
                            const InterfaceDescription& interface) {
    const bool storage = interface.kind == InterfaceKind::storage;
    const bool has_out = storage || interface.out_packet > 0;
    const ClassCode code = class_code(interface.kind);
    const std::uint8_t text =
        interface.text.empty() ? 0 : low(first_interface_string + position(device, interface));
    Bytes bytes{9,         descriptor_interface, interface.number, 0,   low(has_out ? 2U : 1U),
                code.code, code.subclass,        code.protocol,    text};
    add(bytes, hid_descriptor(device, interface));
    const std::uint8_t kind = storage ? transfer_bulk : transfer_interrupt;
    add_endpoint(bytes, in_endpoint(device, interface), kind,
                 storage ? bulk_packet : interface.in_packet);
    if (has_out) {
        add_endpoint(bytes, out_endpoint(device, interface), kind,
                     storage ? bulk_packet : interface.out_packet);
    }
    return bytes;
}

/// The characters of UTF-8 text as 16-bit units; what is malformed or beyond 16 bits is '?'.
std::vector<std::uint16_t> decode(std::string_view text) {
    std::vector<std::uint16_t> units;
    while (!text.empty()) {
        const std::size_t length = zelf::character_length(text);
        const char32_t code = length == 0 ? U'?' : zelf::code_point(text.substr(0, length));
        units.push_back(static_cast<std::uint16_t>(code <= 0xFFFF ? code : U'?'));
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return units;
}

std::string string_text(const DeviceDescription& device, std::uint8_t index) {
    switch (index) {
        case manufacturer_string:
            return device.manufacturer;
        case product_string:
            return device.product_name;
        case serial_string:
            return device.serial;
        default:
            break;
    }
    const std::size_t interface = std::size_t{index} - first_interface_string;
    return interface < device.interfaces.size() ? device.interfaces[interface].text : "";
}

}  // namespace

bool is_hid(const InterfaceDescription& interface) {
    return class_code(interface.kind).code == class_hid;
}

std::uint8_t in_endpoint(const DeviceDescription& device, const InterfaceDescription& interface) {
    return low(0x81U + position(device, interface));
}

std::uint8_t out_endpoint(const DeviceDescription& device, const InterfaceDescription& interface) {
    return low(0x01U + position(device, interface));
}

Bytes device_descriptor(const DeviceDescription& device, std::uint16_t bcd) {
    constexpr std::uint16_t usb = 0x0110;
    const auto index = [](const std::string& text, std::uint8_t number) {
        return text.empty() ? std::uint8_t{0} : number;
    };
    return {18,
            descriptor_device,
            low(usb),
            high(usb),
            device.is_hub ? class_hub : std::uint8_t{0},
            0,
            0,
            control_packet,
            low(device.vendor),
            high(device.vendor),
            low(device.product),
            high(device.product),
            low(bcd),
            high(bcd),
            index(device.manufacturer, manufacturer_string),
            index(device.product_name, product_string),
            index(device.serial, serial_string),
            1};
}

Bytes configuration_descriptor(const DeviceDescription& device) {
    constexpr std::size_t head = 9;
    constexpr std::uint8_t bus_powered = 0x80;
    constexpr std::uint8_t milliamperes = 100;
    Bytes interfaces;
    for (const InterfaceDescription& interface : device.interfaces) {
        add(interfaces, interface_descriptors(device, interface));
    }
    const std::size_t total = head + interfaces.size();
    Bytes bytes{head,
                descriptor_configuration,
                low(total),
                high(total),
                low(device.interfaces.size()),
                configuration_value,
                0,
                bus_powered,
                milliamperes / 2};
    add(bytes, interfaces);
    return bytes;
}

std::optional<Bytes> string_descriptor(const DeviceDescription& device, std::uint8_t index,
                                       std::uint16_t language) {
    if (index == 0) {
        return Bytes{4, descriptor_string, low(us_english), high(us_english)};
    }
    const std::string text = string_text(device, index);
    if (text.empty() || language != us_english) {
        return std::nullopt;
    }
    constexpr std::size_t most_units = 126;
    const std::vector<std::uint16_t> units = decode(text);
    Bytes bytes{0, descriptor_string};
    for (std::size_t at = 0; at < std::min(units.size(), most_units); ++at) {
        add(bytes, {low(units[at]), high(units[at])});
    }
    bytes[0] = low(bytes.size());
    return bytes;
}

Bytes hid_descriptor(const DeviceDescription& device, const InterfaceDescription& interface) {
    if (!is_hid(interface)) {
        return {};
    }
    constexpr std::uint16_t hid = 0x0111;
    const std::size_t length = report_descriptor(device, interface).size();
    return {9, descriptor_hid,    low(hid),    high(hid),   0,
            1, descriptor_report, low(length), high(length)};
}

Bytes hub_descriptor(const DeviceDescription& hub) {
    constexpr std::uint8_t power_good = 50;
    const std::size_t map = hub.ports / 8U + 1;
    Bytes bytes{low(7 + map * 2), descriptor_hub, hub.ports, 0, 0, power_good, 0};
    bytes.insert(bytes.end(), map, 0);
    bytes.insert(bytes.end(), map, 0xFF);
    return bytes;
}

}  // namespace zelfsim
