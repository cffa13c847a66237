/// \file
/// Stands in front of open and ioctl: hubs under /proc/bus/usb that answer the port request. Every
/// other file is the system's.
#pragma once

#include <cstdint>
#include <vector>

/// Adds the node of a hub; `ports` holds the device address on each port from port 1 on.
/// `error`, when not 0, is the errno with which the request fails.
void usbfs_add_hub(int bus, int address, const std::vector<uint8_t>& ports, int error = 0);

/// The answer's first byte, where it is to differ from the number of ports.
void usbfs_claim_ports(uint8_t count);

/// Nodes opened and not closed again.
int usbfs_open_nodes();

struct UsbfsRequest {
    unsigned long request;
    int interface_number;
    unsigned int inner_request;
    int open_flags;
};

/// The requests made so far.
std::vector<UsbfsRequest> usbfs_requests();
