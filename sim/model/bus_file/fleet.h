/// \file
/// Bus files with many devices.
#pragma once

#include <string>

namespace zelfsim {

constexpr unsigned largest_fleet = 1000;

/// The text of a bus file with `count` (1 to largest_fleet) flash devices on hubs with seven ports,
/// up to 96 devices a bus; the same text for the same count.
std::string fleet(unsigned count);

}  // namespace zelfsim
