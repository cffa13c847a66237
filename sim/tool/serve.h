/// \file
/// `zelfwsim serve`: the bus for a real kernel.
#pragma once

#include <span>

/// Takes the arguments after the command's name and serves until a signal ends it. Gives the exit
/// code; throws what a bus file or a socket that cannot be used throws.
int serve(std::span<const char* const> arguments);
