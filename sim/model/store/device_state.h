/// \file
/// What a device remembers between runs.
#pragma once

#include "model/bus_file/description.h"
#include "model/device/basics.h"

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace zelfsim {

/// What an image says about its component.
struct ComponentLevel {
    Version version;
    ComponentType type = ComponentType::firmware;
    bool random = false;
};

struct ComponentState {
    std::uint8_t id = 0;
    ComponentLevel current;
    bool broken = false;                    ///< its image was begun and not finished
    std::optional<ComponentLevel> pending;  ///< written, not yet running
};

/// Where the flash interface stands.
enum class FlashPhase { idle, erased, receiving, complete };

struct DeviceState {
    std::uint8_t address = 0;
    TimePoint away_until{};  ///< absent until then; in the past when it is there
    bool unplugged = false;  ///< absent until somebody plugs it in
    std::uint16_t bcd = 0;
    FlashPhase phase = FlashPhase::idle;
    Version previous;
    unsigned resets = 0;
    unsigned updates = 0;
    unsigned failed_updates = 0;
    std::set<std::uint8_t> detached;
    std::set<std::string> fired;
    std::vector<ComponentState> components;

    ComponentState* component(std::uint8_t id);
};

/// A device as it leaves the factory.
DeviceState factory_state(const DeviceDescription& description);

/// The level a component reports: that of a broken one is its major level alone.
Version reported_version(const ComponentState& component);

/// The names of the state files, as in "receiving".
const char* phase_name(FlashPhase phase);
const char* type_name(ComponentType type);

/// As text in the format of state.toml.
std::string write_state(const DeviceState& state);

/// Takes what a state file says over what `state` holds. Components that the state does not have
/// are passed over. Throws FileError.
void read_state(const std::string& file, DeviceState& state);

}  // namespace zelfsim
