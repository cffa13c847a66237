/// \file
/// Finds a thread that computes on and on and calls nothing, which no count of calls would.
#pragma once

namespace zelfsim::virtual_time {

/// Calls `look` each time the process has used so many seconds of processor time.
void watch_processor_time(long seconds, void (*look)());

}  // namespace zelfsim::virtual_time
