/// \file
/// The USB library's form of a configuration descriptor.
#pragma once

#include "model/device/basics.h"

#include <libusb-1.0/libusb.h>

#include <memory>
#include <vector>

namespace zelfsim::usb {

/// A configuration with everything that hangs on it; handed out as its base and freed through it.
struct ConfigurationTree : libusb_config_descriptor {
    Bytes bytes;
    std::vector<libusb_interface> interfaces;
    std::vector<libusb_interface_descriptor> settings;
    std::vector<libusb_endpoint_descriptor> endpoints;
};

/// Builds the tree from the descriptor's bytes; null when these are not well-formed.
std::unique_ptr<ConfigurationTree> build_tree(const Bytes& bytes);

}  // namespace zelfsim::usb
