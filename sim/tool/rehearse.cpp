#include "tool/rehearse.h"

#include "common/file_access.h"
#include "model/bus_file/bus_file.h"
#include "tool/child.h"
#include "tool/exit_code.h"
#include "twin/plan.h"
#include "twin/story.h"
#include "twin/twin.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace {

using zelfsim::PlannedFile;
using zelfsim::PlannedUpdate;
using zelfsim::UpdatePlan;

constexpr int still_due = 3;
/// The first exit code that tells of the simulation, not of the updater.
constexpr int first_of_simulation = 116;

struct RehearsalOptions {
    std::string origin;
    std::string directory;
    std::string updater;
    bool json = false;
    std::vector<std::string> selection;  ///< goes to the updater both times
    bool forces = false;
};

/// Options of the updater that choose devices or change how it goes on; the others write files, or
/// are commands.
bool takes_argument(std::string_view option) {
    constexpr std::array<std::string_view, 8> known_options{"-d", "-s", "-o", "-0",
                                                            "-1", "-2", "-3", "-4"};
    return std::find(known_options.begin(), known_options.end(), option) != known_options.end();
}

std::optional<RehearsalOptions> parse_rehearsal(std::span<const char* const> arguments) {
    RehearsalOptions options;
    for (std::size_t at = 0; at < arguments.size(); ++at) {
        const std::string name = arguments[at];
        const bool has_value = at + 1 < arguments.size();
        if (name == "--json") {
            options.json = true;
        } else if (name == "-f") {
            options.forces = true;
        } else if (name == "-a") {
            options.selection.push_back(name);
        } else if (name == "-p" && has_value) {
            options.directory = arguments[++at];
        } else if (name == "--updater" && has_value) {
            options.updater = arguments[++at];
        } else if (takes_argument(name) && has_value) {
            options.selection.push_back(name);
            options.selection.emplace_back(arguments[++at]);
        } else if (options.origin.empty() && !name.empty() && name[0] != '-') {
            options.origin = name;
        } else {
            return std::nullopt;
        }
    }
    const bool whole = !options.origin.empty() && !options.directory.empty();
    return whole ? std::optional(options) : std::nullopt;
}

bool is_wanted(std::string name) {
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return name.ends_with(".dat") || name.ends_with(".dat.force");
}

/// Firmware files and their markers, in the order in which the updater comes across them.
std::vector<std::string> files_of(const std::string& directory) {
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(opendir(directory.c_str()), closedir);
    if (stream == nullptr) {
        throw zelf::FileError(directory, 0, std::strerror(errno));
    }
    std::vector<std::string> names;
    while (const dirent* entry = readdir(stream.get())) {
        const std::string name = entry->d_name;
        struct stat status {};
        if (is_wanted(name) && fstatat(dirfd(stream.get()), name.c_str(), &status, 0) == 0 &&
            S_ISREG(status.st_mode)) {
            names.push_back(name);
        }
    }
    return names;
}

void copy_in_order(const std::string& from, const std::string& to,
                   const std::vector<std::string>& names) {
    zelf::create_directories(to);
    for (const std::string& name : names) {
        const std::string copy = std::filesystem::path(to) / name;
        zelf::append(zelf::open_for_append(copy, true), copy,
                     zelf::read_bytes_of(std::filesystem::path(from) / name));
    }
}

/// A copy in the same order. False when the file system keeps another one.
bool copy_files(const std::string& from, const std::string& to) {
    std::vector<std::string> names = files_of(from);
    const std::vector<std::string> wanted = names;
    std::reverse(names.begin(), names.end());
    copy_in_order(from, to, names);
    return files_of(to) == wanted;
}

/// The text of the bus: of a bus file as it is, of a trace its twin without faults.
std::string bus_of(const std::string& origin, const std::string& place) {
    if (origin.ends_with(".toml")) {
        zelfsim::read_bus_file(origin);
        return origin;
    }
    const zelfsim::Story story = zelfsim::read_story(origin, -1);
    const std::string bus = zelfsim::twin_of(story, origin, zelfsim::WithFaults::no);
    std::string file = place + "/bus.toml";
    zelf::replace_file(file, std::string_view(bus));
    return file;
}

/// One update on the twin; what it did.
struct Pass {
    int code = 0;
    UpdatePlan plan;
};

Pass run_pass(const RehearsalOptions& options, const std::string& bus, const std::string& place,
              const std::string& name, bool forces) {
    const std::string trace = place + "/" + name + ".trace";
    std::vector<std::string> command{own_file(),
                                     "run",
                                     "--virtual",
                                     "--state",
                                     place + "/state",
                                     bus,
                                     "--",
                                     find_updater(options.updater),
                                     "-U",
                                     "-p",
                                     place + "/firmware",
                                     "-l",
                                     place + "/" + name + ".log",
                                     "-t",
                                     trace};
    command.insert(command.end(), options.selection.begin(), options.selection.end());
    if (forces) {
        command.emplace_back("-f");
    }
    Pass pass;
    pass.code = run_child(command, place + "/" + name + ".console");
    if (pass.code >= first_of_simulation || !zelf::exists(trace)) {
        throw zelf::FileError(options.origin, 0,
                              "the updater could not run, exit code " + std::to_string(pass.code));
    }
    pass.plan = zelfsim::read_plan(zelfsim::last_run_lines(trace));
    return pass;
}

std::size_t size_of(const RehearsalOptions& options, const std::string& file) {
    struct stat status {};
    return stat((options.directory + "/" + file).c_str(), &status) == 0
               ? static_cast<std::size_t>(status.st_size)
               : 0;
}

bool is_due(const Pass& first, const Pass& second) {
    return !second.plan.updates.empty() ||
           std::any_of(first.plan.updates.begin(), first.plan.updates.end(),
                       [](const PlannedUpdate& update) { return update.rc != 0; });
}

nlohmann::ordered_json update_json(const RehearsalOptions& options, const PlannedUpdate& update) {
    nlohmann::ordered_json object;
    char product[8];
    std::snprintf(product, sizeof product, "%04x", update.product & 0xFFFF);
    object["product"] = product;
    object["component"] = update.component;
    object["serial"] = update.serial;
    object["file"] = update.file;
    object["from"] = update.from;
    object["to"] = update.to;
    object["forced"] = update.is_forced;
    object["bytes"] = size_of(options, update.file);
    object["ms"] = static_cast<long>(update.end - update.begin);
    object["rc"] = update.rc.value_or(-1);
    return object;
}

void print_json(const RehearsalOptions& options, const Pass& first, const Pass& second) {
    nlohmann::ordered_json report;
    report["updates"] = nlohmann::ordered_json::array();
    for (const PlannedUpdate& update : first.plan.updates) {
        report["updates"].push_back(update_json(options, update));
    }
    report["not_used"] = nlohmann::ordered_json::array();
    for (const PlannedFile& file : first.plan.files) {
        if (!file.not_used.empty()) {
            report["not_used"].push_back({{"file", file.name}, {"reason", file.not_used}});
        }
    }
    report["ms"] = static_cast<long>(first.plan.duration);
    report["exit_code"] = first.code;
    report["due_after"] = nlohmann::ordered_json::array();
    for (const PlannedUpdate& update : second.plan.updates) {
        report["due_after"].push_back(update_json(options, update));
    }
    // What is no UTF-8, in a serial number say, must not end the report.
    std::printf(
        "%s\n",
        report.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace).c_str());
}

void print_update(const RehearsalOptions& options, const PlannedUpdate& update) {
    std::printf("  %04x component %u (SN='%s')  %s -> %s  %s, %zu bytes, %.1f s%s\n",
                update.product, update.component, update.serial.c_str(), update.from.c_str(),
                update.to.c_str(), update.file.c_str(), size_of(options, update.file),
                (update.end - update.begin) / 1000, update.is_forced ? ", forced" : "");
    if (update.rc != 0) {
        std::printf("    FAILS, rc=%d\n", update.rc.value_or(-1));
    }
}

void print_text(const RehearsalOptions& options, const Pass& first, const Pass& second) {
    std::printf("Updates: %zu\n", first.plan.updates.size());
    std::size_t bytes = 0;
    for (const PlannedUpdate& update : first.plan.updates) {
        print_update(options, update);
        bytes += size_of(options, update.file);
    }
    for (const PlannedFile& file : first.plan.files) {
        if (!file.not_used.empty()) {
            std::printf("Not used: %s: %s\n", file.name.c_str(), file.not_used.c_str());
        }
    }
    std::printf("In all: %zu bytes, %.1f s, exit code %d\n", bytes, first.plan.duration / 1000,
                first.code);
    std::printf("Due after it: %s\n", second.plan.updates.empty() ? "nothing" : "");
    for (const PlannedUpdate& update : second.plan.updates) {
        print_update(options, update);
    }
}

}  // namespace

int rehearse(std::span<const char* const> arguments) {
    const auto options = parse_rehearsal(arguments);
    if (!options) {
        std::fprintf(stderr, "zelfwsim: wrong arguments of rehearse\nTry: zelfwsim --help\n");
        return wrong_arguments;
    }
    const PrivateDirectory directory;
    const std::string place = directory.path("rehearsal");
    zelf::create_directories(place);
    const std::string bus = bus_of(options->origin, place);
    if (!copy_files(options->directory, place + "/firmware")) {
        std::fprintf(stderr,
                     "zelfwsim: %s: the order of its files could not be kept; of several files for "
                     "one component the update may take another one\n",
                     options->directory.c_str());
    }
    const Pass first = run_pass(*options, bus, place, "first", options->forces);
    const Pass second = run_pass(*options, bus, place, "second", false);
    (options->json ? print_json : print_text)(*options, first, second);
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        return unusable;
    }
    return is_due(first, second) ? still_due : success;
}
