#include "command_line/options.h"

#include "command_line/usage.h"
#include "exit_code.h"
#include "journal/output.h"
#include "journal/zelfwtrace.h"
#include "settings.h"

#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace {

constexpr char option_string[] = "ULRC:F:G:SD:VE:c:d:s:famr:p:l:t:n:o:w:?0:1:2:3:4:";
constexpr std::size_t longest_text = 254;
constexpr std::size_t longest_product_id = 19;

int refuse_with_usage() {
    usage();
    return EXIT_USAGE;
}

int read_number(const char* text) {
    const long number = strtol(text, nullptr, 10);
    if (number > INT_MAX) {
        return INT_MAX;
    }
    return number < INT_MIN ? INT_MIN : static_cast<int>(number);
}

int copy_text(char option, const char* text, char* to, std::size_t longest) {
    if (strlen(text) > longest) {
        fprintf(stderr, "zelfwupdate: option -%c: the argument is longer than %zu characters\n",
                option, longest);
        return EXIT_USAGE;
    }
    snprintf(to, longest + 1, "%s", text);
    return run_goes_on;
}

/// Adds an argument to a list whose rows `row_text` gives by index.
template <typename RowText>
int append_text(char option, const char* text, RowText row_text, int& count, std::size_t longest) {
    if (count >= max_list_entries) {
        fprintf(stderr, "zelfwupdate: option -%c: given more than %d times\n", option,
                max_list_entries);
        return EXIT_USAGE;
    }
    const int result = copy_text(option, text, row_text(count), longest);
    if (result == run_goes_on) {
        ++count;
    }
    return result;
}

int set_level(const char* text) {
    const int level = read_number(text);
    if (level < 0 || level > 3) {
        return refuse_with_usage();
    }
    OutputLevel = level == 0 ? 0 : level + 1;
    Verbose = level == 0 ? 0 : 1;
    return run_goes_on;
}

struct MiscellaneousSwitch {
    int number;
    int* variable;
    int value;
};

constexpr MiscellaneousSwitch miscellaneous_switches[] = {
    {0, &sdv_dawu_hw, 1},         {1, &use_information_record_ec_level, 1},
    {2, &background_read, 0},     {3, &old_progress, 1},
    {4, &skip_version_check, 1},  {5, &oem_vendor, 1},
    {6, &extended_components, 1}, {99, &check_for_update_only, 1},
};

int set_miscellaneous_switch(const char* text) {
    if (strcmp(text, "help") == 0 || strcmp(text, "?") == 0) {
        option_help();
        return EXIT_USAGE;
    }
    const int number = read_number(text);
    for (const MiscellaneousSwitch& entry : miscellaneous_switches) {
        if (entry.number == number) {
            *entry.variable = entry.value;
            return run_goes_on;
        }
    }
    return refuse_with_usage();
}

/// A journal's name; "0" means that there is none.
int set_journal_name(char option, const char* text, char* to) {
    return copy_text(option, strcmp(text, "0") == 0 ? "" : text, to, longest_text);
}

int handle_selection(char option, const char* argument) {
    select_devices = 1;
    if (option == 'd') {
        return append_text(
            option, argument, [](int row) { return device_list[row].PIDstr; },
            NumberOfDeviceListEntries, longest_product_id);
    }
    return append_text(
        option, argument, [](int row) { return serial_no_list[row].serial_number; },
        NumberOfSerialNoListEntries, longest_text);
}

int handle_number(int& variable, const char* argument) {
    variable = read_number(argument);
    return run_goes_on;
}

int handle_time_out(char option, const char* argument) {
    int* const variables[] = {&information_timeout, &erase_timeout, &command_timeout,
                              &checksum_timeout, &reset_sleep_timeout};
    return handle_number(*variables[option - '0'], argument);
}

int handle_switch(char option, Command& command) {
    switch (option) {
        case 'U':
            command = COMMAND_UPDATE;
            device_firmware_match_only = 1;
            return run_goes_on;
        case 'L':
            command = COMMAND_LIST;
            list_devices = 1;
            return run_goes_on;
        case 'R':
            command = COMMAND_RESET;
            return run_goes_on;
        case 'S':
            command = COMMAND_SHOW_FILES;
            return run_goes_on;
        case 'V':
            command = COMMAND_VERSION;
            return run_goes_on;
        case 'f':
            force_update = 1;
            return run_goes_on;
        case 'a':
            continue_on_failure = 1;
            return run_goes_on;
        case 'm':
            display_desktop_progress = 1;
            return run_goes_on;
        default:
            usage();
            help();
            return EXIT_USAGE;
    }
}

int handle_argument(char option, const char* argument, Command& command, RunRequest& request) {
    switch (option) {
        case 'C':
            command = COMMAND_CONFIG_FILE;
            device_firmware_match_only = 1;
            return copy_text(option, argument, request.config_filename, longest_text);
        case 'F':
            command = COMMAND_FILES;
            device_firmware_match_only = 1;
            return append_text(
                option, argument, [](int row) { return fwfilename[row]; }, numberOffwfilenames,
                longest_text);
        case 'D':
            command = COMMAND_DISPLAY_FILE;
            return copy_text(option, argument, request.display_filename, longest_text);
        case 'G':
            command = COMMAND_GET_COMPONENT;
            return handle_number(get_component_number, argument);
        case 'c':
            return handle_number(comp_update_id, argument);
        case 'd':
        case 's':
            return handle_selection(option, argument);
        case 'r':
            return copy_text(option, argument, request.rma_filename, longest_text);
        case 'p':
            return copy_text(option, argument, DirName, longest_text);
        case 'w':
            return copy_text(option, argument, OutputFilename, longest_text);
        case 'l':
            return set_journal_name(option, argument, request.log_filename);
        case 't':
            return set_journal_name(option, argument, request.trace_filename);
        case 'n':
            return set_level(argument);
        case 'o':
            return set_miscellaneous_switch(argument);
        default:
            return handle_time_out(option, argument);
    }
}

int handle_option(char option, Command& command, RunRequest& request) {
    if (optarg == nullptr) {
        return handle_switch(option, command);
    }
    if (option == 'E') {
        show_exit_code_description(read_number(optarg));
        return EXIT_USAGE;
    }
    if (emptyArg(optarg) != 0) {
        return refuse_with_usage();
    }
    return handle_argument(option, optarg, command, request);
}

void name_ignored_arguments(int argc, char** argv) {
    for (int i = optind; i < argc; ++i) {
        fprintf(stderr, "zelfwupdate: '%s' is no option, it is ignored\n", argv[i]);
    }
}

}  // namespace

int emptyArg(const char* text) {
    return text[0] == '-' ? 1 : 0;
}

int parse_options(int argc, char** argv, RunRequest& request) {
    snprintf(request.log_filename, sizeof(request.log_filename), "%s", default_log_filename);
    snprintf(request.trace_filename, sizeof(request.trace_filename), "%s", default_trace_filename);
    if (argc < 2) {
        return refuse_with_usage();
    }
    Command current = COMMAND_NONE;
    optind = 0;
    for (int option = getopt(argc, argv, option_string); option != -1;
         option = getopt(argc, argv, option_string)) {
        const int result = handle_option(static_cast<char>(option), current, request);
        if (result != run_goes_on) {
            return result;
        }
        if (request.command == COMMAND_NONE) {
            request.command = current;
        } else if (request.command != current) {
            return refuse_with_usage();
        }
    }
    if (request.command == COMMAND_NONE) {
        return refuse_with_usage();
    }
    name_ignored_arguments(argc, argv);
    return run_goes_on;
}
