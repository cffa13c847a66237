#include "remote/bus_id.h"

namespace zelfsim::remote {

std::string bus_id(const Peripheral& peripheral) {
    const std::string bus = std::to_string(peripheral.description().bus);
    std::string ports;
    for (const Peripheral* at = &peripheral; at->hub() != nullptr; at = at->hub()) {
        ports.insert(0, std::to_string(at->description().port) + (ports.empty() ? "" : "."));
    }
    return bus + "-" + (ports.empty() ? "0" : ports);
}

}  // namespace zelfsim::remote
