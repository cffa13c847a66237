/// \file
/// How the commands of this tool end. `run` has codes of its own, away from the updater's.
#pragma once

constexpr int success = 0;
constexpr int wrong_arguments = 1;
constexpr int unusable = 2;
