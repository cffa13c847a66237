/// \file
/// The faults of a bus file.
#pragma once

#include "model/fault.h"
#include "model/toml_table.h"

namespace zelfsim {

/// One fault table, but for the device it names. Throws FileError.
FaultRule read_fault(TomlTable& table);

}  // namespace zelfsim
