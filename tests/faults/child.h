/// \file
/// Runs a program as a child process with an end to its time.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

struct ChildSettings {
    std::vector<std::string> command;      ///< program and arguments
    std::vector<std::string> environment;  ///< "NAME=value", added to this process's own
    std::filesystem::path output_file, error_file;
    std::chrono::milliseconds longest{};  ///< after this the child is killed
    /// One of this process's descriptors, and the child's number for it.
    std::optional<std::pair<int, int>> descriptor = std::nullopt;
};

/// How a child came out.
struct ChildEnd {
    int exit_code = -1;   ///< -1 when a signal ended it
    int signal = 0;       ///< the signal that ended it, else 0
    bool killed = false;  ///< it outlived its time
    std::chrono::milliseconds duration{};
};

/// Its exit code or signal, from what wait gave.
ChildEnd end_of(int wait_status);

/// Leaves the child's end to the caller. Throws when there can be none.
pid_t start_child(const ChildSettings& settings);

/// Runs the child to its end. Throws when there can be none.
ChildEnd run_child(const ChildSettings& settings);
