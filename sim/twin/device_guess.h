/// \file
/// A device as its answers describe it.
#pragma once

#include "model/bus_file/description.h"
#include "twin/story.h"

#include <string>
#include <vector>

namespace zelfsim {

struct DeviceGuess {
    DeviceDescription device;
    std::vector<std::string> remarks;  ///< what the trace does not tell, and what was taken
};

/// The device without its faults.
DeviceGuess guess_device(const ToldDevice& told);

}  // namespace zelfsim
