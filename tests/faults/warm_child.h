/// \file
/// Runs the program as a fork of one that is loaded already, which spares the loader's work.
#pragma once

#include "child.h"

/// As run_child(), of a program in virtual time. Each thread has a server of its own, for one
/// program.
ChildEnd run_warm_child(const ChildSettings& settings);
