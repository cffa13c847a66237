#include "support/program.h"

#include "run/guarded_environment.h"
#include "run/hidden_devices.h"
#include "support/files.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <memory>
#include <utility>

namespace {

std::map<std::string, std::string> own_environment() {
    std::map<std::string, std::string> variables;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const auto equals = text.find('=');
        variables[text.substr(0, equals)] =
            equals == std::string::npos ? "" : text.substr(equals + 1);
    }
    // Only what the test sets decides on what the program sees.
    for (const char* name : {"ZELFWUPDATE_OUTPUT_LEVEL", "ZELFWSIM_BUS", "ZELFWSIM_STATE",
                             "ZELFWSIM_RECORD", "ZELFWSIM_LIBRARY", "ZELFWSIM_REPORT"}) {
        variables.erase(name);
    }
    return variables;
}

std::vector<std::string> environment_texts(const ProgramSettings& settings) {
    auto variables = own_environment();
    if (!settings.simulation.empty()) {
        for (const auto& [name, value] : zelfsim::guarded_environment(
                 settings.simulation, settings.library, settings.preloads)) {
            variables[name] = value;
        }
    }
    for (const auto& [name, value] : settings.environment) {
        variables[name] = value;
    }
    std::vector<std::string> texts;
    texts.reserve(variables.size());
    for (const auto& [name, value] : variables) {
        texts.push_back(std::string(name).append("=").append(value));
    }
    return texts;
}

/// No run reaches a device that is attached to this machine.
void hide_devices_once() {
    static const bool hidden = geteuid() == 0 && (zelfsim::hide_devices_if_any(), true);
    static_cast<void>(hidden);
}

// Between fork and exec only calls that are safe there.

bool redirect_streams(const ProgramSettings& settings) {
    constexpr mode_t mode = 0644;
    const int output =
        open(settings.console_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, mode);
    const int errors =
        open(settings.error_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, mode);
    const int input = open("/dev/null", O_RDONLY);
    return dup2(input, STDIN_FILENO) >= 0 && dup2(output, STDOUT_FILENO) >= 0 &&
           dup2(errors, STDERR_FILENO) >= 0;
}

/// Puts the run's own directory at /tmp, for this process alone. Gives 0 or what failed.
int enter_private_tmp(const char* directory) {
    if (unshare(CLONE_NEWNS) == 0 &&
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
        mount(directory, "/tmp", nullptr, MS_BIND, nullptr) == 0) {
        return 0;
    }
    return errno == EPERM ? no_right_to_mount : no_private_tmp;
}

/// What asks a run to end does so as on a terminal, also when the tests run under nohup.
void hear_end_requests() {
    for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
        static_cast<void>(signal(number, SIG_DFL));
    }
}

/// Becomes the program, or gives what failed.
int become_program(const ProgramSettings& settings, char** arguments, char** environment) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    hear_end_requests();
    if (!redirect_streams(settings)) {
        return no_streams;
    }
    if (chdir(settings.directory.c_str()) != 0) {
        return no_working_directory;
    }
    // Opened before a private /tmp, which may hide it.
    const int program = open(settings.program.c_str(), O_PATH | O_CLOEXEC);
    const int failure =
        settings.private_tmp.empty() ? 0 : enter_private_tmp(settings.private_tmp.c_str());
    if (failure != 0) {
        return failure;
    }
    execveat(program, "", arguments, environment, AT_EMPTY_PATH);
    return no_program;
}

/// What the child runs. All that takes memory is made ready before there is a child.
std::function<int()> starter(const ProgramSettings& settings,
                             const std::vector<std::string>& arguments) {
    if (!settings.simulation.empty()) {
        hide_devices_once();
    }
    std::vector<std::string> texts = {"zelfwupdate"};
    texts.insert(texts.end(), arguments.begin(), arguments.end());
    auto own_texts = std::make_shared<std::vector<std::string>>(std::move(texts));
    auto variables = std::make_shared<std::vector<std::string>>(environment_texts(settings));
    return [&settings, own_texts, variables, argument_pointers = pointers_to(*own_texts),
            environment_pointers = pointers_to(*variables)]() mutable {
        return become_program(settings, argument_pointers.data(), environment_pointers.data());
    };
}

/// The file that the last `-l` names.
std::string log_file(const std::vector<std::string>& arguments) {
    const auto option = std::find(arguments.rbegin(), arguments.rend(), "-l");
    return option == arguments.rend() || option == arguments.rbegin() ? "" : *std::prev(option);
}

/// A terminal, device or fifo gives nothing back.
std::string read_regular_file(const std::filesystem::path& path) {
    return std::filesystem::is_regular_file(path) ? read_file(path) : "";
}

}  // namespace

ProgramProcess::ProgramProcess(const ProgramSettings& settings,
                               const std::vector<std::string>& arguments)
    : console_file_(settings.console_file),
      error_file_(settings.error_file),
      arguments_(arguments),
      at_end_(settings.at_end),
      child_(starter(settings, arguments)) {}

RunResult ProgramProcess::finish() {
    const ChildEnd end = child_.finish();
    RunResult run;
    run.exit_code = end.exit_code;
    run.signal = end.signal;
    run.timed_out = end.timed_out;
    run.console = read_regular_file(console_file_);
    run.errors = read_file(error_file_);
    run.log = read_regular_file(log_file(arguments_));
    if (at_end_) {
        at_end_(arguments_, run);
    }
    return run;
}

std::string failed_preparation(const RunResult& run) {
    switch (run.exit_code) {
        case no_streams:
            return "could not redirect its streams";
        case no_working_directory:
            return "could not enter its directory";
        case no_right_to_mount:
            return "no right to mount a private /tmp";
        case no_private_tmp:
            return "could not mount a private /tmp";
        case no_program:
            return "could not execute the program";
        default:
            return "";
    }
}
