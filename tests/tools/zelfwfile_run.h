/// \file
/// Runs of the built zelfwfile.
#pragma once

#include "support/child_process.h"
#include "tool_run.h"

/// Takes words of a shell; both outputs come in one.
inline ToolRun zelfwfile(const std::string& arguments) {
    return run_tool(quoted(ZELFWFILE) + " " + arguments + " 2>&1");
}
