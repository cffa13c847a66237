#include "usbip/exports.h"

#include "remote/bus_id.h"

namespace zelfsim::usbip {

std::vector<Peripheral*> Exports::available(TimePoint time) {
    std::vector<Peripheral*> found;
    for (const auto& peripheral : bus_.peripherals()) {
        peripheral->advance(time);
        if (!peripheral->description().is_hub && peripheral->attached() &&
            !taken_.contains(peripheral.get())) {
            found.push_back(peripheral.get());
        }
    }
    return found;
}

Peripheral* Exports::find(std::string_view bus_id, TimePoint time) {
    for (const auto& peripheral : bus_.peripherals()) {
        peripheral->advance(time);
        if (!peripheral->description().is_hub && peripheral->attached() &&
            remote::bus_id(*peripheral) == bus_id) {
            return peripheral.get();
        }
    }
    return nullptr;
}

bool Exports::take(const Peripheral& peripheral) {
    const bool taken = taken_.insert(&peripheral).second;
    if (taken) {
        notes_(title(peripheral) + ": attached");
    }
    return taken;
}

void Exports::give_back(const Peripheral& peripheral) {
    taken_.erase(&peripheral);
    notes_(title(peripheral) + ": detached");
}

std::string title(const Peripheral& peripheral) {
    return remote::bus_id(peripheral) + " " + peripheral.description().name;
}

}  // namespace zelfsim::usbip
