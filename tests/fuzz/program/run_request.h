/// \file
/// What one run of the program is asked to do: its command line and the files that it finds.
#pragma once

#include "support/fuzz_input.h"

#include <string>
#include <vector>

/// The arguments, the program's name first. Zeros stand for an update from the directory's files.
std::vector<std::string> take_command_line(FuzzInput& input);

/// Puts the firmware files in place, as good ones by default.
void put_firmware_files(FuzzInput& input);

/// The program's variables and tables as they are when a process starts.
void restore_program_state();
