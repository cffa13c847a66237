// The whole program, from its command line to its exit code, against a bus whose every answer comes
// from the fuzzer. An input of zeros is a run in which all goes well.
#include "firmware/firmware_search.h"
#include "program/run_request.h"
#include "program/scripted_bus.h"
#include "program/turns.h"
#include "settings.h"
#include "support/check.h"
#include "support/virtual_sleep.h"

#include <unistd.h>

/// The program's `main`, renamed.
int zelfwupdate_main(int argc, char** argv);

namespace {

constexpr int highest_exit_code = 13;
constexpr long an_hour = 3600000;  // milliseconds

int run_program(std::vector<std::string> line) {
    std::vector<char*> arguments;
    arguments.reserve(line.size() + 1);
    for (std::string& argument : line) {
        arguments.push_back(argument.data());
    }
    arguments.push_back(nullptr);
    return zelfwupdate_main(static_cast<int>(line.size()), arguments.data());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    on_sleep = turns::sleep;
    opterr = 0;
    restore_program_state();
    const std::vector<std::string> line = take_command_line(input);
    put_firmware_files(input);
    ScriptedBus bus(input);

    const int code = run_program(line);
    turns::sleep(an_hour);
    check(turns::running() == 0, "every reader has ended");
    check(code >= 0 && code <= highest_exit_code, "the exit code is one of the table's");
    check(numberOfusbFlashFiles >= 0 && numberOfusbFlashFiles <= max_list_entries,
          "the files stay in their table");
    bus.check_all_given_back();
    return 0;
}
