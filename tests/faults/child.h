/// \file
/// Runs a program as a child process with an end to its time.
#pragma once

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

struct ChildSettings {
    std::vector<std::string> command;      ///< program and arguments
    std::vector<std::string> environment;  ///< "NAME=value", added to this process's own
    std::filesystem::path output_file, error_file;
    std::chrono::milliseconds longest{};  ///< after this the child is killed
};

/// How a child came out.
struct ChildEnd {
    int exit_code = -1;   ///< -1 when a signal ended it
    int signal = 0;       ///< the signal that ended it, else 0
    bool killed = false;  ///< it outlived its time
    std::chrono::milliseconds duration{};
};

/// Runs the child to its end. Throws when there can be none.
ChildEnd run_child(const ChildSettings& settings);
