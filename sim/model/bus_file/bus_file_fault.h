/// \file
/// The faults of a bus file.
#pragma once

#include "common/toml_table.h"
#include "model/bus_file/fault.h"

namespace zelfsim {

/// One fault table, but for the device it names. Throws FileError.
FaultRule read_fault(zelf::TomlTable& table);

}  // namespace zelfsim
