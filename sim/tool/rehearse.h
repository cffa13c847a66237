/// \file
/// `zelfwsim rehearse`: the plan of an update, made by the updater itself on a twin.
#pragma once

#include <span>

/// Takes the arguments after the command's name. Gives the exit code; throws what files that cannot
/// be used throw.
int rehearse(std::span<const char* const> arguments);
