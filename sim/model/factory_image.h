/// \file
/// The image of a component that was never updated.
#pragma once

#include "model/basics.h"
#include "model/description.h"

namespace zelfsim {

/// Records, end mark and checksum, the same at every call; it can be sent back to the device.
Bytes factory_image(const DeviceDescription& device, const ComponentDescription& component);

}  // namespace zelfsim
