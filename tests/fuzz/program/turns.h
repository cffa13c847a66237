/// \file
/// The program's threads take turns on a clock of their own: exactly one runs at a time, and a
/// thread that sleeps or waits hands over. So a run takes no time and is the same each time.
#pragma once

#include <cstdint>
#include <functional>

namespace turns {

/// A thread that waits for something that never comes.
constexpr std::int64_t never = INT64_MAX;

/// Milliseconds since the process began.
std::int64_t now();

/// Starts a thread; it takes its first turn when the main thread sleeps.
void start(void* (*function)(void*), void* argument);

/// Lets the time pass: of the main thread by giving the others their turns, of another one by
/// handing over.
void sleep(long milliseconds);

/// Hands over until the time that `due` gives, which is asked again and again, also by the main
/// thread. The main thread itself comes back after a second at most.
void wait(std::function<std::int64_t()> due);

bool is_main_thread();

/// Threads that have not ended.
int running();

}  // namespace turns
