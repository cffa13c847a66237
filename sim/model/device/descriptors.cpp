#include "model/device/descriptors.h"

#include "common/utf8.h"

#include <algorithm>
#include <string>

namespace zelfsim {

namespace {

constexpr std::uint8_t kClassHid = 3;
constexpr std::uint8_t kClassStorage = 8;
constexpr std::uint8_t kClassHub = 9;
constexpr std::uint8_t kTransferBulk = 2;
constexpr std::uint8_t kTransferInterrupt = 3;
constexpr std::uint8_t kControlPacket = 64;
constexpr std::uint8_t kBulkPacket = 64;

constexpr std::uint8_t kManufacturerString = 1;
constexpr std::uint8_t kProductString = 2;
constexpr std::uint8_t kSerialString = 3;
constexpr std::uint8_t kFirstInterfaceString = 4;

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
            return {kClassHid, 1, 1};
        case InterfaceKind::mouse:
            return {kClassHid, 1, 2};
        case InterfaceKind::storage:
            return {kClassStorage, 6, 0x50};
        case InterfaceKind::hub:
            return {kClassHub, 0, 0};
        case InterfaceKind::flash:
        case InterfaceKind::hid:
            break;
    }
    return {kClassHid, 0, 0};
}

void add_endpoint(Bytes& bytes, std::uint8_t address, std::uint8_t kind, std::uint8_t packet) {
    constexpr std::uint8_t kInterval = 10;
    add(bytes, {7, kDescriptorEndpoint, address, kind, packet, 0,
                kind == kTransferInterrupt ? kInterval : std::uint8_t{0}});
}

Bytes interface_descriptors(const DeviceDescription& device,
                            const InterfaceDescription& interface) {
    const bool storage = interface.kind == InterfaceKind::storage;
    const bool has_out = storage || interface.out_packet > 0;
    const ClassCode code = class_code(interface.kind);
    const std::uint8_t text =
        interface.text.empty() ? 0 : low(kFirstInterfaceString + position(device, interface));
    Bytes bytes{9,         kDescriptorInterface, interface.number, 0,   low(has_out ? 2U : 1U),
                code.code, code.subclass,        code.protocol,    text};
    add(bytes, hid_descriptor(device, interface));
    const std::uint8_t kind = storage ? kTransferBulk : kTransferInterrupt;
    add_endpoint(bytes, in_endpoint(device, interface), kind,
                 storage ? kBulkPacket : interface.in_packet);
    if (has_out) {
        add_endpoint(bytes, out_endpoint(device, interface), kind,
                     storage ? kBulkPacket : interface.out_packet);
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
        case kManufacturerString:
            return device.manufacturer;
        case kProductString:
            return device.product_name;
        case kSerialString:
            return device.serial;
        default:
            break;
    }
    const std::size_t interface = std::size_t{index} - kFirstInterfaceString;
    return interface < device.interfaces.size() ? device.interfaces[interface].text : "";
}

}  // namespace

bool is_hid(const InterfaceDescription& interface) {
    return class_code(interface.kind).code == kClassHid;
}

std::uint8_t in_endpoint(const DeviceDescription& device, const InterfaceDescription& interface) {
    return low(0x81U + position(device, interface));
}

std::uint8_t out_endpoint(const DeviceDescription& device, const InterfaceDescription& interface) {
    return low(0x01U + position(device, interface));
}

Bytes device_descriptor(const DeviceDescription& device, std::uint16_t bcd) {
    constexpr std::uint16_t kUsb = 0x0110;
    const auto index = [](const std::string& text, std::uint8_t number) {
        return text.empty() ? std::uint8_t{0} : number;
    };
    return {18,
            kDescriptorDevice,
            low(kUsb),
            high(kUsb),
            device.is_hub ? kClassHub : std::uint8_t{0},
            0,
            0,
            kControlPacket,
            low(device.vendor),
            high(device.vendor),
            low(device.product),
            high(device.product),
            low(bcd),
            high(bcd),
            index(device.manufacturer, kManufacturerString),
            index(device.product_name, kProductString),
            index(device.serial, kSerialString),
            1};
}

Bytes configuration_descriptor(const DeviceDescription& device) {
    constexpr std::size_t kHead = 9;
    constexpr std::uint8_t kBusPowered = 0x80;
    constexpr std::uint8_t kMilliamperes = 100;
    Bytes interfaces;
    for (const InterfaceDescription& interface : device.interfaces) {
        add(interfaces, interface_descriptors(device, interface));
    }
    const std::size_t total = kHead + interfaces.size();
    Bytes bytes{kHead,
                kDescriptorConfiguration,
                low(total),
                high(total),
                low(device.interfaces.size()),
                kConfigurationValue,
                0,
                kBusPowered,
                kMilliamperes / 2};
    add(bytes, interfaces);
    return bytes;
}

std::optional<Bytes> string_descriptor(const DeviceDescription& device, std::uint8_t index,
                                       std::uint16_t language) {
    if (index == 0) {
        return Bytes{4, kDescriptorString, low(kLanguage), high(kLanguage)};
    }
    const std::string text = string_text(device, index);
    if (text.empty() || language != kLanguage) {
        return std::nullopt;
    }
    constexpr std::size_t kMostUnits = 126;
    const std::vector<std::uint16_t> units = decode(text);
    Bytes bytes{0, kDescriptorString};
    for (std::size_t at = 0; at < std::min(units.size(), kMostUnits); ++at) {
        add(bytes, {low(units[at]), high(units[at])});
    }
    bytes[0] = low(bytes.size());
    return bytes;
}

Bytes hid_descriptor(const DeviceDescription& device, const InterfaceDescription& interface) {
    if (!is_hid(interface)) {
        return {};
    }
    constexpr std::uint16_t kHid = 0x0111;
    const std::size_t length = report_descriptor(device, interface).size();
    return {9, kDescriptorHid,    low(kHid),   high(kHid),  0,
            1, kDescriptorReport, low(length), high(length)};
}

Bytes hub_descriptor(const DeviceDescription& hub) {
    constexpr std::uint8_t kPowerGood = 50;
    const std::size_t map = hub.ports / 8U + 1;
    Bytes bytes{low(7 + map * 2), kDescriptorHub, hub.ports, 0, 0, kPowerGood, 0};
    bytes.insert(bytes.end(), map, 0);
    bytes.insert(bytes.end(), map, 0xFF);
    return bytes;
}

}  // namespace zelfsim
