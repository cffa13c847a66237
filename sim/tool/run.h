/// \file
/// `zelfwsim run`: a command on the simulated bus, and on nothing else.
#pragma once

#include <span>

/// Takes the arguments after the command's name. Gives the exit code: the started command's own, or
/// one of 120 to 125.
int run_on_bus(std::span<const char* const> arguments);
