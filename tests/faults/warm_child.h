/// \file
/// Runs the program as a fork of one that is loaded already, which spares the loader's work.
#pragma once

#include "child.h"

/// From now on each server and its runs stay on one processor.
void pin_warm_children();

/// As run_child(), of a program in virtual time. Each thread has a server of its own, for one
/// program.
ChildEnd run_warm_child(const ChildSettings& settings);
