/// \file
/// How a run of one of the built tools came out.
#pragma once

#include "support/child_process.h"

#include <string>
#include <vector>

struct ToolRun {
    int code = -1;  ///< -1 when a signal ended it
    std::string output;
    std::string errors;

    std::vector<std::string> lines() const;
};

/// Runs a command line of a shell.
ToolRun run_tool(const std::string& command);
