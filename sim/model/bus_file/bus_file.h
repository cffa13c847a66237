/// \file
/// Reading of bus files.
#pragma once

#include "model/bus_file/description.h"

#include <string>

namespace zelfsim {

/// Reads a whole bus file and checks it. Throws FileError for the first mistake.
BusDescription read_bus_file(const std::string& file);

}  // namespace zelfsim
