/// \file
/// The descriptors of a simulated device, byte for byte (USB 2.0 chapter 9, HID 1.11 chapters 6
/// and 7).
#pragma once

#include "model/bus_file/description.h"
#include "model/device/basics.h"

#include <cstdint>
#include <optional>

namespace zelfsim {

constexpr std::uint8_t descriptor_device = 1;
constexpr std::uint8_t descriptor_configuration = 2;
constexpr std::uint8_t descriptor_string = 3;
constexpr std::uint8_t descriptor_interface = 4;
constexpr std::uint8_t descriptor_endpoint = 5;
constexpr std::uint8_t descriptor_hid = 0x21;
constexpr std::uint8_t descriptor_report = 0x22;
constexpr std::uint8_t descriptor_hub = 0x29;

constexpr std::uint8_t configuration_value = 1;
constexpr std::uint16_t us_english = 0x0409;

/// Report IDs of a flash interface that uses them.
constexpr std::uint8_t command_report_id = 1;
constexpr std::uint8_t status_report_id = 2;
constexpr std::uint8_t data_report_id = 3;

/// Data bytes of a status report.
constexpr std::size_t status_size = 8;

/// 18 bytes. `bcd` is the device version, which follows the firmware.
Bytes device_descriptor(const DeviceDescription& device, std::uint16_t bcd);

/// The configuration with all its interfaces, HID descriptors and endpoints.
Bytes configuration_descriptor(const DeviceDescription& device);

/// String `index` in `language`; index 0 is the table of languages. None when there is no such
/// string.
std::optional<Bytes> string_descriptor(const DeviceDescription& device, std::uint8_t index,
                                       std::uint16_t language);

/// 9 bytes; empty for an interface that is not HID.
Bytes hid_descriptor(const DeviceDescription& device, const InterfaceDescription& interface);

/// Empty for an interface that is not HID.
Bytes report_descriptor(const DeviceDescription& device, const InterfaceDescription& interface);

/// USB 2.0 section 11.23.2.1.
Bytes hub_descriptor(const DeviceDescription& hub);

bool is_hid(const InterfaceDescription& interface);

/// Endpoint addresses; the OUT endpoint exists when `out_packet` is not 0 (and on storage).
std::uint8_t in_endpoint(const DeviceDescription& device, const InterfaceDescription& interface);
std::uint8_t out_endpoint(const DeviceDescription& device, const InterfaceDescription& interface);

}  // namespace zelfsim
