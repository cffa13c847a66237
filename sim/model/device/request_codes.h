/// \file
/// Codes of control requests (USB 2.0 section 9.4, HID 1.11 section 7.2, hubs: USB 2.0 11.24.2).
#pragma once

#include <cstdint>

namespace zelfsim {

constexpr std::uint8_t kIn = 0x80;
constexpr std::uint8_t kTypeMask = 0x60;
constexpr std::uint8_t kStandard = 0x00;
constexpr std::uint8_t kClass = 0x20;
constexpr std::uint8_t kRecipientMask = 0x1F;
constexpr std::uint8_t kToInterface = 1;
constexpr std::uint8_t kToEndpoint = 2;

constexpr std::uint8_t kClassInterfaceOut = 0x21;
constexpr std::uint8_t kClassInterfaceIn = 0xA1;
constexpr std::uint8_t kClassDeviceIn = 0xA0;

constexpr std::uint8_t kGetStatus = 0;
constexpr std::uint8_t kClearFeature = 1;
constexpr std::uint8_t kGetDescriptor = 6;
constexpr std::uint8_t kGetConfiguration = 8;
constexpr std::uint8_t kSetConfiguration = 9;
constexpr std::uint8_t kGetInterface = 10;
constexpr std::uint8_t kSetInterface = 11;

constexpr std::uint8_t kGetReport = 1;
constexpr std::uint8_t kGetIdle = 2;
constexpr std::uint8_t kGetProtocol = 3;
constexpr std::uint8_t kSetReport = 9;
constexpr std::uint8_t kSetIdle = 10;
constexpr std::uint8_t kSetProtocol = 11;

/// Report types, the high byte of a report request's value.
constexpr std::uint8_t kInputReport = 1;
constexpr std::uint8_t kOutputReport = 2;
constexpr std::uint8_t kFeatureReport = 3;

}  // namespace zelfsim
