/// \file
/// Serves the devices of a bus over USB/IP.
#pragma once

#include "common/file_access.h"
#include "model/device/bus.h"
#include "usbip/connection.h"
#include "usbip/exports.h"
#include "usbip/kernel_ports.h"

#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <string>

namespace zelfsim::usbip {

/// Runs in one thread, so the bus needs no lock.
class Server {
  public:
    /// `bus` outlives this.
    Server(Bus& bus, Notes notes);

    /// Accepts hosts at a numeric address; port 0 takes a free one. Gives the port. Throws
    /// std::system_error.
    std::uint16_t listen(const std::string& address, std::uint16_t port);

    /// Keeps every device attached to this machine's kernel: at once, and again whenever it comes
    /// back onto the bus.
    void attach_to(KernelPorts ports) { kernel_ = std::move(ports); }

    /// Serves until `stop` can be read. Throws std::system_error.
    void run(int stop);

  private:
    void accept_host();
    void attach_devices(TimePoint time);
    void attach_device(Peripheral& peripheral, TimePoint time);
    void complain(const Peripheral& peripheral, const std::string& reason);
    void proceed(TimePoint time);
    std::optional<Duration> wait_time(TimePoint time) const;

    Notes notes_;
    Exports exports_;
    zelf::FileDescriptor listener_;
    std::optional<KernelPorts> kernel_;
    std::map<const Peripheral*, unsigned> kernel_port_;  ///< where each device was last
    bool complained_ = false;
    std::list<Connection> connections_;
};

}  // namespace zelfsim::usbip
