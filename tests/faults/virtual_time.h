/// \file
/// Runs of the program in virtual time.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

/// Which of all runs.
struct Schedule {
    std::uint32_t seed = 0;  ///< 0: the plain order of threads
    std::string clock_step;  ///< "SECONDS@MILLISECONDS", of the wall clock; empty: none
};

/// "NAME=value" of what the preloaded object is told.
std::vector<std::string> settings_of(const Schedule& schedule);

/// The clock in a state directory.
std::chrono::milliseconds read_virtual_clock(const std::filesystem::path& state);
/// Lets time pass between two runs.
void pass_virtual_time(const std::filesystem::path& state, std::chrono::milliseconds length);

/// Lays out the memory of all programs that are started from now on the same way each time.
void fix_addresses();
