/// \file
/// Bytes as they are kept and looked at.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace zelf {

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

}  // namespace zelf
