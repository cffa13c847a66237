/// \file
/// For how long no report has gone over the wire. All of it is safe in a signal handler.
#pragma once

#include <cstdint>

/// Milliseconds of a clock that nobody sets; wraps round after 49 days.
std::uint32_t steady_milliseconds();

/// Notes that a report has been written or read.
void note_wire_movement();

/// Milliseconds since then.
std::uint32_t wire_silence();
