#include "support/workspace.h"

#include "support/child_process.h"

#include <stdlib.h>

#include <algorithm>

void Workspace::use_bus(const std::string& text) const {
    write("bus.toml", text);
    setenv("ZELFWSIM_BUS", bus().c_str(), 1);
    setenv("ZELFWSIM_STATE", state().c_str(), 1);
    setenv("ZELFWSIM_RECORD", record().c_str(), 1);
}

std::vector<Transfer> read_record(const std::string& file) {
    return TransferRecord(file).all();
}

int count_kind(const std::vector<Transfer>& lines, std::string_view kind) {
    return static_cast<int>(std::count_if(
        lines.begin(), lines.end(), [kind](const Transfer& line) { return line.kind == kind; }));
}

Outcome run(const std::string& command) {
    const ChildEnd end = run_shell(command + " 2>&1");
    return {.code = end.signal == 0 ? end.exit_code : 128 + end.signal, .output = end.output};
}
