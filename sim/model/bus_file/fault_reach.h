/// \file
/// Which faults of a bus file no run of the updater can reach.
#pragma once

#include "model/bus_file/description.h"

#include <optional>
#include <string>

namespace zelfsim {

/// Why the fault will never strike, as far as the device's description tells: which files an update
/// is given, and how long they are, it does not know.
std::optional<std::string> why_never_reached(const DeviceDescription& device,
                                             const FaultRule& fault);

}  // namespace zelfsim
