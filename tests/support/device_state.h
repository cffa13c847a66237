/// \file
/// Reads what the simulated devices remember between runs.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

struct ComponentState {
    int id = 0;
    std::string level;
    int build = 0;
    bool broken = false;
    bool pending = false;
    std::string pending_level;
};

struct DeviceState {
    int address = 0;
    int bcd = 0;
    std::string flash;
    int resets = 0;
    int updates = 0;
    int failed_updates = 0;
    std::vector<ComponentState> components;

    /// Throws when there is no such component.
    const ComponentState& component(int id) const;
};

/// Throws when the file can't be read.
DeviceState read_device_state(const std::filesystem::path& path);
