/// \file
/// The parts of a bus file that describe one device.
#pragma once

#include "common/toml_table.h"
#include "model/bus_file/description.h"

namespace zelfsim {

/// A table of times; what it does not name is taken from `base`.
Timing read_timing(const zelf::TomlTable& table, const Timing& base);

/// Refuses a device table with an unknown key. Throws FileError.
void know_device_keys(const zelf::TomlTable& table);

/// Everything of a device but its name, place and address. Throws FileError.
void read_device(const zelf::TomlTable& table, const Timing& timing, DeviceDescription& device);

}  // namespace zelfsim
