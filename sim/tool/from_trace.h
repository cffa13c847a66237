/// \file
/// `zelfwsim from-trace`: a bus file from a trace.
#pragma once

#include <span>

/// Takes the arguments after the command's name. Gives the exit code; throws what a trace that
/// cannot be used throws.
int make_twin(std::span<const char* const> arguments);
