/// \file
/// `zelfwsim clone`: a bus file of the devices that are attached to this machine.
#pragma once

#include <span>

/// Takes the arguments after the command's name. Gives the exit code; throws what a list that
/// cannot be had throws.
int clone_devices(std::span<const char* const> arguments);
