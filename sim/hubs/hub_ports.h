/// \file
/// The kernel's answer about the ports of the bus file's hubs.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace zelfsim {

/// The 128 bytes of the hub driver's answer: number of ports, then the address on each port from 1,
/// 0 where nothing is attached.
using HubPorts = std::array<std::uint8_t, 128>;

struct DeviceNode {
    unsigned bus = 0;
    unsigned address = 0;
};

/// Reads "/proc/bus/usb/BBB/DDD"; none for any other path.
std::optional<DeviceNode> parse_node(const char* path);

/// Whether a device of the bus file has this address now. False also when ZELFWSIM_BUS is not set
/// or the files cannot be used.
bool node_present(const DeviceNode& node);

/// The ports of a hub; none when the device is no hub or is away.
std::optional<HubPorts> hub_ports(const DeviceNode& node);

}  // namespace zelfsim
