/// \file
/// Bus files with many devices.
#pragma once

#include <string>

namespace zelfsim {

constexpr unsigned kLargestFleet = 1000;

/// The text of a bus file with `count` (1 to kLargestFleet) flash devices on hubs with seven ports,
/// up to 96 devices a bus; the same text for the same count.
std::string fleet(unsigned count);

}  // namespace zelfsim
