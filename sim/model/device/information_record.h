/// \file
/// Information records: of an image, they come before its data; of a device, they are its answers.
#pragma once

#include <cstdint>

namespace zelfsim {

/// The tag of a record with a list; its value bytes say which.
constexpr std::uint8_t list_tag = 0xFF;
constexpr std::uint8_t component_ids = 0;
constexpr std::uint8_t plain_list = 1;
constexpr std::uint8_t extended_list = 2;

// Of a record that a component's own tag marks.
constexpr std::uint8_t version_subtype = 1;
constexpr std::uint8_t version_with_build = 2;

}  // namespace zelfsim
