#include "command_line/options.h"
#include "command_line/output_files.h"
#include "command_line/usage.h"
#include "exit_code.h"
#include "firmware/firmware_search.h"
#include "journal/output.h"
#include "journal/zelfwtrace.h"
#include "process/fault_report.h"
#include "process/signal_hold.h"
#include "session/zelflash.h"
#include "settings.h"
#include "usb/zelhidlib.h"

#include <ltdl.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr char library_search_path[] = "/usr/lib:/lib:";
constexpr char level_variable[] = "ZELFWUPDATE_OUTPUT_LEVEL";
constexpr int default_output_level = 1;
constexpr int highest_level_from_environment = 1000000;

// The trace file is appended to, and would keep three copies if it were rotated.
constexpr int trace_mode_append = 0;
constexpr int trace_backup_count = 3;

/// A file of ours that got one of the first three numbers would be written to as console.
void open_standard_descriptors() {
    int descriptor = 0;
    while (descriptor >= 0 && descriptor <= STDERR_FILENO) {
        descriptor = open("/dev/null", O_RDWR);
    }
    if (descriptor > STDERR_FILENO) {
        close(descriptor);
    }
}

/// Closes log and trace and, once it is up, the module loader on every way out of `main`.
class RunResources {
  public:
    RunResources() = default;
    ~RunResources() { shut_down(); }
    RunResources(const RunResources&) = delete;
    RunResources& operator=(const RunResources&) = delete;

    int start_loader() {
        const int rc = lt_dlinit();
        has_loader_ = rc == 0;
        return rc;
    }
    void shut_down() {
        if (has_loader_) {
            has_loader_ = false;
            lt_dlexit();
        }
        close_log_file();
    }

  private:
    bool has_loader_ = false;
};

/// A console that goes away, and a file that reaches the limit for its size, cost that output: they
/// must not end the program in mid-update.
void ignore_lost_outputs() {
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
}

void open_journals(const RunRequest& request) {
    trace = std::make_unique<Trace>(request.trace_filename, trace_mode_append, trace_backup_count);
    if (request.log_filename[0] != '\0') {
        open_log_file(request.log_filename);
    }
}

/// A result of an earlier run must not be taken for that of this one, which may end without. Of a
/// link only what it leads to.
void remove_old_result(const char* name) {
    struct stat about = {};
    if (name[0] == '\0' || lstat(name, &about) != 0) {
        return;
    }
    if (S_ISREG(about.st_mode)) {
        unlink(name);
    } else if (S_ISLNK(about.st_mode) && stat(name, &about) == 0 && S_ISREG(about.st_mode)) {
        [[maybe_unused]] const int rc = truncate(name, 0);
    }
}

void apply_level_from_environment() {
    if (OutputLevel != default_output_level) {
        return;
    }
    const char* text = getenv(level_variable);
    if (text == nullptr) {
        return;
    }
    const long level = std::min(strtol(text, nullptr, 10), long{highest_level_from_environment});
    if (level > 0) {
        OutputLevel = static_cast<int>(level) + 1;
        Verbose = 1;
    }
}

void log_command_line(int argc, char** argv) {
    std::array<char, 2000> line = {"Command line: "};
    std::size_t length = strlen(line.data());
    for (int i = 0; i < argc && length + 1 < line.size(); ++i) {
        const int added = snprintf(&line[length], line.size() - length, " %s", argv[i]);
        length += added > 0 ? static_cast<std::size_t>(added) : 0;
    }
    writelog(0, "%s\n", line.data());
}

int bind_usb_library(RunResources& resources) {
    int rc = resources.start_loader();
    if (rc == 0) {
        lt_dladdsearchdir(library_search_path);
        rc = LoadHidDlls();
    }
    if (rc != 0) {
        writelog(1, "Could not load HID libraries (rc=%d)\n", rc);
    }
    return rc;
}

struct TimeoutEcho {
    int* value;
    int default_value;
    const char* name;
};

void echo_changed_timeouts() {
    const TimeoutEcho echoes[] = {
        {&information_timeout, default_information_timeout, "Information response timeout"},
        {&erase_timeout, default_erase_timeout, "Erase response timeout"},
        {&command_timeout, default_command_timeout, "Command response timeout"},
        {&checksum_timeout, default_checksum_timeout, "Checksum response timeout"},
        {&reset_sleep_timeout, default_reset_sleep_timeout, "Reset after sleep timeout"},
    };
    for (const TimeoutEcho& echo : echoes) {
        if (*echo.value != echo.default_value) {
            writelog(Verbose, "%s: %d milliseconds\n", echo.name, *echo.value);
        }
    }
}

int update_devices(ZELFLASH& session) {
    read_firmware_files();
    return session.flash_all_devices();
}

void search_files_in_directory() {
    if (DirName[0] == '\0') {
        snprintf(DirName, sizeof(DirName), ".");
    }
    search_firmware_files();
}

int run_command(ZELFLASH& session, const RunRequest& request) {
    switch (request.command) {
        case COMMAND_RESET:
            return session.reset_devices();
        case COMMAND_CONFIG_FILE:
            read_config_file(request.config_filename);
            return update_devices(session);
        case COMMAND_FILES:
            return update_devices(session);
        case COMMAND_UPDATE:
            search_files_in_directory();
            return update_devices(session);
        case COMMAND_LIST:
            return session.list_attached_devices();
        case COMMAND_SHOW_FILES:
            search_files_in_directory();
            read_firmware_files();
            return 0;
        case COMMAND_DISPLAY_FILE:
            session.display_firmware_file(request.display_filename);
            return 0;
        case COMMAND_GET_COMPONENT:
            if (OutputFilename[0] != '\0') {
                return session.get_device_data_for_component(get_component_number, OutputFilename);
            }
            writelog(1, "No output file specified\n");
            return 0;
        default:
            return 0;
    }
}

/// Ends the process as it stands: a background reader may still use the session, the trace and the
/// USB library, which outlives the loader.
[[noreturn]] void leave_to_reader(std::unique_ptr<ZELFLASH> session, RunResources& resources,
                                  int rc) {
    static_cast<void>(session.release());
    resources.shut_down();
    SignalHold::end_by_held_signal();
    fflush(nullptr);
    _exit(rc);
}

int run_session(const RunRequest& request, RunResources& resources) {
    std::unique_ptr<ZELFLASH> session;
    try {
        session = std::make_unique<ZELFLASH>();
    } catch (...) {
        writelog(1, "Flash interface load failed...exception occurred\n");
        return EXIT_UNEXPECTED_ERROR;
    }
    int rc = EXIT_UNEXPECTED_ERROR;
    try {
        rc = run_command(*session, request);
        if (request.rma_filename[0] != '\0') {
            session->write_rma_log(request.rma_filename);
        }
        if (session->finish()) {
            return rc;
        }
    } catch (...) {
        writelog(1, "Flash failed...exception occurred\n");
        rc = EXIT_UNEXPECTED_ERROR;
    }
    leave_to_reader(std::move(session), resources, rc);
}

int run_request(int argc, char** argv, const RunRequest& request, RunResources& resources) {
    open_journals(request);
    if (request.command == COMMAND_VERSION) {
        show_version(1);
        return EXIT_OK;
    }
    remove_old_result(request.rma_filename);
    show_version(0);
    if (background_read == 0) {
        writelog(0, "Timeout read disabled\n");
    }
    apply_level_from_environment();
    log_command_line(argc, argv);
    if (getuid() != 0) {
        writelog(1, "Must be 'root' to update firmware devices\n");
        return EXIT_NOT_ROOT;
    }
    if (bind_usb_library(resources) != 0) {
        return EXIT_NO_USB_LIBRARY;
    }
    echo_changed_timeouts();
    install_fault_report();
    return run_session(request, resources);
}

int run(int argc, char** argv) {
    open_standard_descriptors();
    prepare_console();
    RunRequest request;
    reset_options();
    int result = parse_options(argc, argv, request);
    if (result < 0) {
        result = refuse_shared_files(request);
    }
    if (result >= 0) {
        return result;
    }
    ignore_lost_outputs();
    RunResources resources;
    try {
        return run_request(argc, argv, request, resources);
    } catch (...) {
        writelog(1, "The run could not be set up...exception occurred\n");
        return EXIT_UNEXPECTED_ERROR;
    }
}

}  // namespace

int main(int argc, char** argv) {
    const int rc = run(argc, argv);
    SignalHold::end_by_held_signal();
    return rc;
}
