/// \file
/// The image of a component that was never updated.
#pragma once

#include "model/bus_file/description.h"
#include "model/device/basics.h"

namespace zelfsim {

/// Records, end mark and checksum, the same at every call; it can be sent back to the device.
Bytes factory_image(const DeviceDescription& device, const ComponentDescription& component);

}  // namespace zelfsim
