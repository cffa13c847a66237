/// \file
/// Stands in front of the system's time of day, so that a clock can be set back in a test, and of
/// the time zone that comes with it.
#pragma once

#include <cstdint>

/// From now on the time of day stands still at so many milliseconds since the epoch.
void clock_double_stands_at(std::int64_t milliseconds);
/// The time of day is the system's again.
void clock_double_runs();
/// The minutes west of Greenwich; 0 at first.
void clock_double_says_zone(std::int16_t minutes);
