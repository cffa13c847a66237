/// \file
/// How the record writes transfers.
#pragma once

#include "model/device/peripheral.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace zelfsim {

/// "TT RR VVVV IIII LLLL".
std::string setup_text(const Setup& setup);

/// "EE LLLL"; `length` is what was asked for.
std::string endpoint_text(std::uint8_t endpoint, std::size_t length);

}  // namespace zelfsim
