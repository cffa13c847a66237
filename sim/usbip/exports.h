/// \file
/// The devices of a bus as a server offers them: each to one host at a time.
#pragma once

#include "model/device/bus.h"

#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zelfsim::usbip {

/// Told of what happens, one line without newline each.
using Notes = std::function<void(const std::string&)>;

class Exports {
  public:
    /// `bus` outlives this.
    Exports(Bus& bus, Notes notes) : bus_(bus), notes_(std::move(notes)) {}

    /// Present and with no host yet, in the order of the bus file. Hubs belong to the host.
    std::vector<Peripheral*> available(TimePoint time);
    /// The device at a place while it is present; null when there is none.
    Peripheral* find(std::string_view bus_id, TimePoint time);

    /// False when another host has the device.
    bool take(const Peripheral& peripheral);
    void give_back(const Peripheral& peripheral);

    TransferLog& log() { return bus_.log(); }

  private:
    Bus& bus_;
    Notes notes_;
    std::set<const Peripheral*> taken_;
};

/// A device and its place, as notes name it.
std::string title(const Peripheral& peripheral);

}  // namespace zelfsim::usbip
