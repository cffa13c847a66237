#include "model/bus_file/fault_reach.h"

#include <algorithm>

namespace zelfsim {

namespace {

/// Events of the flash interface: a device without one never sees them.
bool needs_flash(FaultEvent event) {
    switch (event) {
        case FaultEvent::record_read:
        case FaultEvent::command:
        case FaultEvent::status_request:
        case FaultEvent::reset:
        case FaultEvent::stop:
        case FaultEvent::ec_level:
        case FaultEvent::device_info:
        case FaultEvent::erase:
        case FaultEvent::record:
        case FaultEvent::checksum:
        case FaultEvent::component_version:
        case FaultEvent::component_list:
        case FaultEvent::extended_list:
        case FaultEvent::read_records:
            return true;
        default:
            return false;
    }
}

bool has_component(const FlashDescription& flash, unsigned id) {
    return std::any_of(flash.components.begin(), flash.components.end(),
                       [id](const ComponentDescription& one) { return one.id == id; });
}

}  // namespace

std::optional<std::string> why_never_reached(const DeviceDescription& device,
                                             const FaultRule& fault) {
    if (!device.flash) {
        if (needs_flash(fault.at)) {
            return "the device has no flash interface, so no command reaches it";
        }
        return std::nullopt;
    }
    if (fault.component && !has_component(*device.flash, *fault.component)) {
        return "the device has no component " + std::to_string(*fault.component);
    }
    const std::size_t images = fault.component ? 1 : device.flash->components.size();
    if ((fault.at == FaultEvent::erase || fault.at == FaultEvent::checksum) &&
        fault.number > images) {
        return "an update sends one image for each component, so at most " +
               std::to_string(images) + " to this device";
    }
    return std::nullopt;
}

}  // namespace zelfsim
