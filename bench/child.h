/// \file
/// Runs a program to its end and measures it from outside.
#pragma once

#include <map>
#include <string>
#include <vector>

struct ChildCost {
    int exit_code = -1;     ///< -1 when a signal ended it
    double wall = 0;        ///< seconds
    double cpu = 0;         ///< seconds, user and system
    double memory_mib = 0;  ///< largest resident size
};

/// Runs `command` with `environment` added to this process's own and its output in `console`.
/// Throws std::system_error when it can't be started.
ChildCost run_child(const std::vector<std::string>& command,
                    const std::map<std::string, std::string>& environment,
                    const std::string& console = "/dev/null");
