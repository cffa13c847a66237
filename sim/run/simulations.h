/// \file
/// Where the simulation of a word size lies.
#pragma once

#include "run/program_file.h"

#include <string>
#include <vector>

namespace zelfsim {

inline constexpr const char* simulation_file = "libusb-1.0.so";
inline constexpr const char* guard_file = "libzelfwsim-guard.so";
inline constexpr const char* hubs_file = "libzelfwsim-hubs.so";

/// As Debian names it: the folder below /usr/lib, and the architecture of a package.
const char* triplet(WordSize size);
const char* architecture(WordSize size);

/// Whether guard and simulation of this word size lie there.
bool holds_simulation(const std::string& directory, WordSize size);

/// Directories that may hold the simulation, the first one to be preferred: beside this program,
/// in the build tree of `command`, in the build tree beside this one, and where packages put it.
std::vector<std::string> simulation_places(const std::string& command, WordSize size);

/// The first of these places that has it; empty when none has.
std::string find_simulation(const std::string& command, WordSize size);

}  // namespace zelfsim
