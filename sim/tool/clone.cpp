#include "tool/clone.h"

#include "common/file_access.h"
#include "tool/child.h"
#include "tool/exit_code.h"
#include "twin/story.h"
#include "twin/twin.h"

#include <cstdio>
#include <string>
#include <string_view>

int clone_devices(std::span<const char* const> arguments) {
    std::string output;
    std::string updater;
    for (std::size_t at = 0; at < arguments.size(); ++at) {
        const std::string_view name = arguments[at];
        if ((name != "-o" && name != "--updater") || at + 1 == arguments.size()) {
            std::fprintf(stderr, "zelfwsim: wrong arguments of clone\nTry: zelfwsim --help\n");
            return wrong_arguments;
        }
        (name == "-o" ? output : updater) = arguments[++at];
    }
    const PrivateDirectory place;
    const std::string trace = place.path("trace");
    const std::string program = find_updater(updater);
    // Its debug lines tell the sizes of the reports.
    const int code = run_child({program, "-L", "-n", "3", "-l", place.path("log"), "-t", trace},
                               place.path("console"));
    if (code != 0) {
        throw zelf::FileError(program, 0, "the list ended with exit code " + std::to_string(code));
    }
    const std::string bus =
        zelfsim::twin_of(zelfsim::read_story(trace, -1), "a list of the attached devices");
    if (output.empty()) {
        std::fputs(bus.c_str(), stdout);
    } else {
        zelf::replace_file(output, std::string_view(bus));
    }
    return success;
}
