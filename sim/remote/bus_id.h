/// \file
/// The names by which hosts know the places on a bus.
#pragma once

#include "model/device/peripheral.h"

#include <cstdint>
#include <string>

namespace zelfsim::remote {

/// Bus number and the ports on the way, as Linux names devices: "1-2.4". The same whatever address
/// the device has.
std::string bus_id(const Peripheral& peripheral);

}  // namespace zelfsim::remote
