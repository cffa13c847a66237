/// \file
/// Codes of control requests (USB 2.0 section 9.4, HID 1.11 section 7.2, hubs: USB 2.0 11.24.2).
#pragma once

#include <cstdint>

namespace zelfsim {

constexpr std::uint8_t direction_in = 0x80;
constexpr std::uint8_t type_mask = 0x60;
constexpr std::uint8_t standard_type = 0x00;
constexpr std::uint8_t class_type = 0x20;
constexpr std::uint8_t recipient_mask = 0x1F;
constexpr std::uint8_t to_interface = 1;
constexpr std::uint8_t to_endpoint = 2;

constexpr std::uint8_t class_interface_out = 0x21;
constexpr std::uint8_t class_interface_in = 0xA1;
constexpr std::uint8_t class_device_in = 0xA0;

constexpr std::uint8_t get_status_request = 0;
constexpr std::uint8_t clear_feature_request = 1;
constexpr std::uint8_t get_descriptor_request = 6;
constexpr std::uint8_t get_configuration_request = 8;
constexpr std::uint8_t set_configuration_request = 9;
constexpr std::uint8_t get_interface_request = 10;
constexpr std::uint8_t set_interface_request = 11;

constexpr std::uint8_t get_report_request = 1;
constexpr std::uint8_t get_idle_request = 2;
constexpr std::uint8_t get_protocol_request = 3;
constexpr std::uint8_t set_report_request = 9;
constexpr std::uint8_t set_idle_request = 10;
constexpr std::uint8_t set_protocol_request = 11;

/// Report types, the high byte of a report request's value.
constexpr std::uint8_t input_report = 1;
constexpr std::uint8_t output_report = 2;
constexpr std::uint8_t feature_report = 3;

}  // namespace zelfsim
