#include "tool/run.h"

#include "guard/terms.h"
#include "model/bus_file/bus_file.h"
#include "run/command.h"
#include "run/hidden_devices.h"
#include "run/program_file.h"
#include "run/simulations.h"
#include "run/stage.h"
#include "run/virtual_time.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace {

using zelfsim::WordSize;

// None that the updater uses, nor those of a shell.
constexpr int wrong_run_arguments = 120;
constexpr int unusable_bus = 121;
constexpr int no_simulation = 122;
constexpr int cannot_start = 123;
constexpr int devices_in_reach = 124;
constexpr int not_simulated = zelfsim::guard::refused_exit;

struct RunOptions {
    std::map<std::string, std::string> environment;  ///< of the bus
    std::string library;                ///< directory of the simulation, empty to look for it
    std::set<std::string> features;     ///< objects beside the simulation that are preloaded, too
    std::vector<std::string> preloads;  ///< objects of the user's
    std::string bus;
    std::vector<std::string> command;
    bool virtual_time = false;
    std::map<std::string, std::string> time_settings;  ///< that go only with virtual time
};

/// Why no command was started, and the exit code that tells it.
class RunError : public std::runtime_error {
  public:
    RunError(int code, const std::string& reason) : std::runtime_error(reason), code_(code) {}
    int code() const { return code_; }

  private:
    int code_;
};

std::string absolute(const std::string& file) {
    return std::filesystem::absolute(file).lexically_normal().string();
}

/// Takes an option without an argument; false when there is none of that name.
bool take_switch(std::string_view name, RunOptions& options) {
    if (name == "--virtual") {
        options.virtual_time = true;
        options.features.insert(zelfsim::time_file);
    } else if (name == "--hubs") {
        options.features.insert(zelfsim::hubs_file);
    } else {
        return false;
    }
    return true;
}

/// Takes an option with its argument; false when there is none of that name.
bool take_option(std::string_view name, const std::string& value, RunOptions& options) {
    if (name == "--state") {
        options.environment["ZELFWSIM_STATE"] = absolute(value);
    } else if (name == "--record") {
        options.environment["ZELFWSIM_RECORD"] = absolute(value);
    } else if (name == "--library") {
        options.library = absolute(value);
    } else if (name == "--preload") {
        options.preloads.push_back(absolute(value));
    } else if (const char* variable = zelfsim::virtual_time_variable(name)) {
        options.time_settings[variable] = value;
    } else {
        return false;
    }
    return true;
}

RunOptions parse_run(std::span<const char* const> arguments) {
    RunOptions options;
    std::size_t at = 0;
    for (; at < arguments.size() && arguments[at][0] == '-'; ++at) {
        const std::string_view name = arguments[at];
        if (!take_switch(name, options) &&
            (at + 1 == arguments.size() || !take_option(name, arguments[++at], options))) {
            throw RunError(
                wrong_run_arguments,
                "unknown option of run, or its argument is missing: " + std::string(name));
        }
    }
    if (arguments.size() < at + 3 || std::string_view(arguments[at + 1]) != "--") {
        throw RunError(wrong_run_arguments, "run takes a bus file, --, and a command");
    }
    if (!options.virtual_time && !options.time_settings.empty()) {
        throw RunError(
            wrong_run_arguments,
            "--seed, --from-epoch, --hold-up, --limit, --steps, --busy and --set-clock go with "
            "--virtual");
    }
    options.bus = absolute(arguments[at]);
    options.environment["ZELFWSIM_BUS"] = options.bus;
    options.command.assign(arguments.begin() + static_cast<std::ptrdiff_t>(at) + 2,
                           arguments.end());
    return options;
}

void check_bus(const RunOptions& options) {
    try {
        zelfsim::read_bus_file(options.bus);
    } catch (const std::exception& error) {
        throw RunError(unusable_bus, error.what());
    }
}

/// The file of the command. One that the guard would not stay with is refused.
std::string find_program(const RunOptions& options) {
    const std::string& command = options.command.front();
    std::string file = zelfsim::find_command(command);
    if (file.empty()) {
        throw RunError(cannot_start, command + ": no such command");
    }
    if (zelfsim::changes_rights(file)) {
        throw RunError(cannot_start, command +
                                         " changes the user and leaves the simulation behind; "
                                         "put it in front: " +
                                         command + " zelfwsim run ...");
    }
    if (!zelfsim::word_size_of(file) && !zelfsim::is_script(file)) {
        throw RunError(cannot_start, command + ": neither a program nor a script");
    }
    return file;
}

/// The simulation that the user has named.
std::string named_library(const RunOptions& options) {
    std::string file = options.library + "/" + zelfsim::simulation_file;
    if (!zelfsim::is_simulation(file)) {
        throw RunError(no_simulation, file + ": no simulation");
    }
    return file;
}

/// The simulation for one word size, beside the guard or in the directory that the user has named;
/// empty when there is none. One that was named has to fit the command; what a script or the
/// command starts may have another word size.
std::string library_for(WordSize size, const std::string& place, const std::string& program,
                        const RunOptions& options) {
    if (!options.library.empty()) {
        std::string named = named_library(options);
        if (zelfsim::word_size_of(named) == size) {
            return named;
        }
        if (zelfsim::word_size_of(program) == size) {
            return "";
        }
    }
    return place + "/" + zelfsim::simulation_file;
}

/// Provides for the programs of one word size; false when there is nothing to provide.
bool equip(zelfsim::Stage& stage, WordSize size, const std::string& program,
           const RunOptions& options) {
    const std::string place = zelfsim::find_simulation(program, size);
    const std::string library = library_for(size, place, program, options);
    if (place.empty() || library.empty()) {
        return false;
    }
    const std::filesystem::path directory(place);
    for (const std::string& feature : options.features) {
        if (!std::filesystem::exists(directory / feature)) {
            return false;
        }
    }
    stage.set_library(size, library);
    stage.preload(size, place + "/" + zelfsim::guard_file);
    for (const std::string& feature : options.features) {
        stage.preload(size, std::string(place).append("/").append(feature));
    }
    for (const std::string& object : options.preloads) {
        if (zelfsim::word_size_of(object) == size) {
            stage.preload(size, object);
        }
    }
    return true;
}

[[noreturn]] void miss_simulation(const std::string& program, WordSize size,
                                  const RunOptions& options) {
    const std::string kind = zelfsim::word_size_name(size);
    if (!options.library.empty()) {
        throw RunError(no_simulation, program + " is a " + kind + " program, " + options.library +
                                          " has no " + kind + " simulation");
    }
    throw RunError(no_simulation, program + " is a " + kind +
                                      " program, and there is no simulation for it: install "
                                      "zelfwupdate-sim:" +
                                      zelfsim::architecture(size) + ", or name it with --library");
}

/// Provides for the command's own word size, and for the other one where that can be had: what it
/// starts may have either.
void equip_all(zelfsim::Stage& stage, const std::string& program, const RunOptions& options) {
    for (const std::string& object : options.preloads) {
        if (!zelfsim::word_size_of(object)) {
            throw RunError(cannot_start, object + ": cannot be preloaded");
        }
    }
    const std::optional<WordSize> own = zelfsim::word_size_of(program);
    bool any = false;
    for (const WordSize size : {WordSize::bits32, WordSize::bits64}) {
        const bool equipped = equip(stage, size, program, options);
        if (!equipped && size == own) {
            miss_simulation(program, size, options);
        }
        any = any || equipped;
    }
    if (!any) {
        miss_simulation(program, zelfsim::own_word_size(), options);
    }
}

/// Gives whether this user is root.
bool shut_devices_out() {
    if (geteuid() != 0) {
        std::fprintf(stderr,
                     "zelfwsim: the updater needs root, even here: sudo zelfwsim run ...\n");
        return false;
    }
    try {
        zelfsim::hide_devices_if_any();
    } catch (const std::system_error& error) {
        throw RunError(devices_in_reach,
                       std::string("the attached devices cannot be hidden: ") + error.what());
    }
    return true;
}

/// The end of the command: its wait status, or the error that it did not speak to the simulation.
int checked(int status, const std::string& report) {
    const auto times = [&report](char event) {
        return std::count(report.begin(), report.end(), event);
    };
    using namespace zelfsim::guard;
    if (times(refused) > 0 || times(asked) > times(opened)) {
        throw RunError(not_simulated, "the command did not run on the simulated bus");
    }
    if (WIFEXITED(status) && times(guarded) == 0) {
        throw RunError(not_simulated, "the command ran without the guard, exit code " +
                                          std::to_string(WEXITSTATUS(status)));
    }
    return status;
}

/// Gives the command's wait status.
int run_guarded(const RunOptions& options) {
    check_bus(options);
    const std::string program = find_program(options);
    zelfsim::Stage stage;
    equip_all(stage, program, options);
    if (options.virtual_time) {
        zelfsim::begin_virtual_time(options.time_settings);
    }
    zelfsim::Command command{program, options.command, stage.environment(), !shut_devices_out()};
    command.environment.insert(options.environment.begin(), options.environment.end());
    const int status = zelfsim::run_command(command);
    return checked(status, stage.report());
}

}  // namespace

int run_on_bus(std::span<const char* const> arguments) {
    try {
        const int status = run_guarded(parse_run(arguments));
        if (WIFSIGNALED(status)) {
            zelfsim::end_by_signal(WTERMSIG(status));
        }
        return WEXITSTATUS(status);
    } catch (const RunError& error) {
        const bool names_itself = error.code() == unusable_bus;
        std::fprintf(stderr, "%s%s\n", names_itself ? "" : "zelfwsim: ", error.what());
        if (error.code() == wrong_run_arguments) {
            std::fprintf(stderr, "Try: zelfwsim --help\n");
        }
        return error.code();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "zelfwsim: %s\n", error.what());
        return cannot_start;
    }
}
