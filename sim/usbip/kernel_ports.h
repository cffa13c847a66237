/// \file
/// The ports of this machine's own virtual host controller, vhci-hcd.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zelfsim::usbip {

/// Attaches devices through the controller's files in sysfs, which takes the super-user.
class KernelPorts {
  public:
    explicit KernelPorts(std::string directory = "/sys/devices/platform/vhci_hcd.0")
        : directory_(std::move(directory)) {}

    /// Whether the module is loaded.
    bool present() const;

    /// Ports for devices of full speed with nothing attached, ascending.
    std::vector<unsigned> free_ports() const;

    /// Lets the kernel import a device over a connected stream socket, whose other end speaks the
    /// protocol from the first transfer on. 0 or the error number.
    int attach(unsigned port, int socket, std::uint32_t device) const;

  private:
    std::string directory_;
};

}  // namespace zelfsim::usbip
