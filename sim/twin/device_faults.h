/// \file
/// What went wrong with a device, as faults of a bus file.
#pragma once

#include "model/bus_file/description.h"
#include "twin/story.h"

#include <string>
#include <vector>

namespace zelfsim {

struct FaultGuess {
    FaultRule rule;
    double clock = 0;    ///< when it struck
    std::string remark;  ///< what the trace showed of it
};

/// In the order in which they struck. `device` is the twin without faults.
std::vector<FaultGuess> find_faults(const DeviceDescription& device, const ToldDevice& told);

}  // namespace zelfsim
