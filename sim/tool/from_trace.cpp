#include "tool/from_trace.h"

#include "common/file_access.h"
#include "tool/exit_code.h"
#include "twin/story.h"
#include "twin/twin.h"

#include <charconv>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace {

struct TwinOptions {
    std::string trace;
    std::string output;
    int run = -1;
};

bool parse_run(std::string_view text, int& run) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), run);
    return error == std::errc{} && end == text.data() + text.size() && run != 0;
}

std::optional<TwinOptions> parse_twin(std::span<const char* const> arguments) {
    TwinOptions options;
    for (std::size_t at = 0; at < arguments.size(); ++at) {
        const std::string_view name = arguments[at];
        const bool has_value = at + 1 < arguments.size();
        if (name == "-o" && has_value) {
            options.output = arguments[++at];
        } else if (name == "--run" && has_value) {
            if (!parse_run(arguments[++at], options.run)) {
                return std::nullopt;
            }
        } else if (options.trace.empty() && !name.empty() && name[0] != '-') {
            options.trace = name;
        } else {
            return std::nullopt;
        }
    }
    return options.trace.empty() ? std::nullopt : std::optional(options);
}

}  // namespace

int make_twin(std::span<const char* const> arguments) {
    const auto options = parse_twin(arguments);
    if (!options) {
        std::fprintf(stderr, "zelfwsim: wrong arguments of from-trace\nTry: zelfwsim --help\n");
        return wrong_arguments;
    }
    const zelfsim::Story story = zelfsim::read_story(options->trace, options->run);
    const std::string bus = zelfsim::twin_of(story, options->trace);
    if (!story.damage.empty()) {
        std::fprintf(stderr, "zelfwsim: %s: %s\n", options->trace.c_str(), story.damage.c_str());
    }
    if (options->output.empty()) {
        std::fputs(bus.c_str(), stdout);
    } else {
        zelf::replace_file(options->output, std::string_view(bus));
    }
    return success;
}
