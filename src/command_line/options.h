/// \file
/// The parsing of the command line.
#pragma once

/// The commands; the values are the codes that a command option stores.
enum Command {
    COMMAND_NONE = 0,
    COMMAND_RESET = 1,
    COMMAND_CONFIG_FILE = 2,
    COMMAND_FILES = 4,
    COMMAND_UPDATE = 5,
    COMMAND_LIST = 6,
    COMMAND_SHOW_FILES = 7,
    COMMAND_DISPLAY_FILE = 8,
    COMMAND_VERSION = 9,
    COMMAND_GET_COMPONENT = 11,
};

/// Given in place of an exit code: nothing ends the run yet.
constexpr int run_goes_on = -1;

/// What the command line asks of `main` itself.
struct RunRequest {
    Command command = COMMAND_NONE;
    char log_filename[255] = {};
    char trace_filename[255] = {};
    char config_filename[255] = {};
    char display_filename[255] = {};
    char rma_filename[255] = {};
};

/// 1 when the text begins with '-', which no option argument but that of -E may.
int emptyArg(const char* text);

/// Parses the command line into the option variables and `request`, printing what an option or a
/// usage error asks for. Returns `run_goes_on`, or the exit code that ends the run.
int parse_options(int argc, char** argv, RunRequest& request);
