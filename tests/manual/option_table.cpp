#include "option_table.h"

#include "command_line/options.h"

#include <unistd.h>

namespace {

std::string seen_options;
bool has_given_option = false;

}  // namespace

/// Takes the place of the C library's: it notes the table, and finds the option -V alone.
int getopt(int argc, char* const* /*argv*/, const char* options) noexcept {
    seen_options = options;
    optarg = nullptr;
    optind = argc;
    has_given_option = !has_given_option;
    return has_given_option ? 'V' : -1;
}

std::string option_string() {
    char program[] = "zelfwupdate";
    char argument[] = "-V";
    char* arguments[] = {program, argument, nullptr};
    RunRequest request;
    parse_options(2, arguments, request);
    return seen_options;
}

std::map<char, bool> option_table() {
    std::map<char, bool> table;
    char letter = '\0';
    for (const char c : option_string()) {
        if (c == ':') {
            table[letter] = true;
        } else {
            letter = c;
            table[letter] = false;
        }
    }
    return table;
}
