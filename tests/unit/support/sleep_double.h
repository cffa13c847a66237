/// \file
/// Stands in front of `select`, by which everything here sleeps.
#pragma once

#include <functional>
#include <vector>

/// From construction on, the sleeps of the constructing thread are noted, and those of at least
/// `shortest_skipped` milliseconds take no time. Other threads sleep as ever. One at a time.
class SleepDouble {
  public:
    explicit SleepDouble(long shortest_skipped = 400);
    ~SleepDouble();
    SleepDouble(const SleepDouble&) = delete;
    SleepDouble& operator=(const SleepDouble&) = delete;

    /// The milliseconds slept so far, skipped or not.
    std::vector<long> slept() const;
    int count(long milliseconds) const;

    /// Called behind each sleep, with how many there have been.
    std::function<void(int)> after_sleep;
};
