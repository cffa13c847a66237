/// \file
/// The faults of a bus file.
#pragma once

#include "common/toml_table.h"
#include "model/bus_file/fault.h"

namespace zelfsim {

/// Refuses a fault table with an unknown key. Throws FileError.
void know_fault_keys(const zelf::TomlTable& table);

/// One fault table, but for the device it names. Throws FileError.
FaultRule read_fault(const zelf::TomlTable& table);

}  // namespace zelfsim
