/// \file
/// A view of the file system in which no real USB device can be reached.
#pragma once

namespace zelfsim {

/// Whether there are nodes of USB devices at all.
bool has_device_nodes();

/// Gives this process, and what it starts, a mount namespace in which the devices' nodes are not
/// there and no real libusb-1.0 can be loaded. Throws std::system_error where that is not
/// permitted.
void hide_devices();

/// The same where it is permitted; throws only where it is not and there are devices to be hidden.
void hide_devices_if_any();

}  // namespace zelfsim
