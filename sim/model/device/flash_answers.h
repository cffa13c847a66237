/// \file
/// The answers of the flash interface: status reports and data reports.
#pragma once

#include "model/device/descriptors.h"
#include "model/store/device_state.h"

#include <array>
#include <cstdint>

namespace zelfsim {

using Status = std::array<std::uint8_t, status_size>;

constexpr std::uint8_t rejected = 0x80;
constexpr std::uint8_t operation_error = 0x40;
constexpr std::uint8_t device_info_present = 0x08;
constexpr std::uint8_t level_present = 0x04;
constexpr std::uint8_t completed = 0x01;

/// A status report with nothing but its flags.
Status plain_status(std::uint8_t flags);
Status level_status(const DeviceState& state);
Status device_info_status(const FlashDescription& flash);

/// Data reports, without padding.
Bytes version_data(const ComponentState& component);
Bytes plain_list_data(const DeviceState& state);
Bytes extended_list_data(const DeviceState& state);

/// One block of a record read: the record at `at` of an image, or the end mark with the checksum.
/// Moves `at` past a record; stays at the end mark.
Bytes record_block(const Bytes& image, std::size_t& at);

}  // namespace zelfsim
