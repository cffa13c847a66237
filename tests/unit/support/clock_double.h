/// \file
/// Stands in front of the system's time of day, so that a clock can be set back in a test.
#pragma once

#include <cstdint>

/// From now on the time of day stands still at so many milliseconds since the epoch.
void clock_double_stands_at(std::int64_t milliseconds);
/// The time of day is the system's again.
void clock_double_runs();
