#include "tool_run.h"

#include "support/files.h"

std::vector<std::string> ToolRun::lines() const {
    return lines_of(output);
}

ToolRun run_tool(const std::string& command) {
    const ChildEnd end = run_shell(command);
    return {.code = end.exit_code, .output = end.output, .errors = end.errors};
}
