#include "workplace.h"

#include "run/guarded_environment.h"
#include "support/bus_text.h"

#include <algorithm>
#include <thread>
#include <utility>

namespace {

constexpr int data_records = 18;
constexpr unsigned int printer = 0x3C35;
constexpr unsigned int scanner = 0x3C36;
constexpr unsigned int bystander_product = 0x3C37;

std::string whole_bus(const std::string& fault) {
    return bus_text({{.name = "printer", .product = printer, .components = {{}, {.id = 1}}},
                     {.name = "scanner", .product = scanner, .serial = "SC0001"},
                     {.name = bystander, .product = bystander_product, .serial = "BY0001"}},
                    fault);
}

const ComponentState* find_component(const std::optional<DeviceState>& state, int id) {
    if (!state) {
        return nullptr;
    }
    const auto found =
        std::find_if(state->components.begin(), state->components.end(),
                     [id](const ComponentState& component) { return component.id == id; });
    return found == state->components.end() ? nullptr : &*found;
}

}  // namespace

const std::vector<Target>& targets() {
    static const std::vector<Target> all = {
        {"printer", "main.dat", {.product = printer, .data_records = data_records}, false},
        {"printer",
         "boot.dat",
         {.product = printer, .level = "0106", .component = 1, .data_records = data_records},
         false},
        {"scanner",
         "scanner.dat",
         {.product = scanner, .level = "0102", .data_records = data_records},
         true}};
    return all;
}

const Target* find_target(int product, int component) {
    const auto found = std::find_if(targets().begin(), targets().end(), [&](const Target& target) {
        return static_cast<int>(target.file.product) == product &&
               target.file.component == component;
    });
    return found == targets().end() ? nullptr : &*found;
}

int product_of(const std::string& device) {
    return static_cast<int>(device == "printer"   ? printer
                            : device == "scanner" ? scanner
                                                  : bystander_product);
}

std::string device_of(int product) {
    for (const char* name : {"printer", "scanner", bystander}) {
        if (product_of(name) == product) {
            return name;
        }
    }
    return "";
}

Workplace::Workplace(std::string program, std::optional<Schedule> schedule, Starter starter)
    : program_(std::move(program)), schedule_(std::move(schedule)), starter_(starter) {
    std::filesystem::create_directory(directory_.path("firmware"));
    for (const Target& target : targets()) {
        const std::string name = std::string("firmware/") + target.file_name;
        write_file(directory_.path(name), target.file.bytes());
        if (target.is_forced) {
            write_file(directory_.path(name + ".force"), "");
        }
    }
}

std::vector<std::string> Workplace::arguments(const std::string& command, bool goes_on,
                                              bool with_debug_log) const {
    const std::string others = std::to_string(other_timeouts);
    std::vector<std::string> all = {"-0", std::to_string(information_timeout),
                                    "-1", others,
                                    "-2", others,
                                    "-3", others,
                                    "-l", journal("log.txt"),
                                    "-t", with_debug_log ? journal("trace.bin") : "0",
                                    "-r", journal("results.txt")};
    const auto add = [&all](std::initializer_list<std::string> more) {
        all.insert(all.end(), more);
    };
    if (command == "update" || command == "force") {
        add({"-U", "-p", directory_.path("firmware")});
        if (command == "force") {
            add({"-f"});
        }
    } else if (command == "list") {
        add({"-L"});
    } else if (command == "reset") {
        add({"-R"});
    } else {
        add({"-G", "1", "-d", "3c35", "-w", directory_.path("read.dat")});
    }
    if (goes_on) {
        add({"-a"});
    }
    if (with_debug_log) {
        add({"-n", "2"});
    }
    return all;
}

Run Workplace::run(const std::string& command, bool goes_on, const std::string& fault,
                   bool with_debug_log, std::chrono::milliseconds longest) {
    ++runs_;
    std::filesystem::remove(path("read.dat"));
    write_file(journal("bus.toml"), whole_bus(fault));
    ChildSettings settings = {.command = {program_},
                              .environment = {"ZELFWSIM_BUS=" + journal("bus.toml"),
                                              "ZELFWSIM_STATE=" + path("state").string(),
                                              "ZELFWSIM_RECORD=" + journal("record.tsv")},
                              .output_file = journal("console.txt"),
                              .error_file = journal("errors.txt"),
                              .longest = longest};
    std::vector<std::string> preloads;
    if (schedule_) {
        preloads.emplace_back(TIME_OBJECT);
        for (const std::string& setting : settings_of(*schedule_)) {
            settings.environment.push_back(setting);
        }
    }
    for (const auto& [name, value] :
         zelfsim::guarded_environment(SIMULATION_DIRECTORY, "", preloads)) {
        settings.environment.push_back(std::string(name).append("=").append(value));
    }
    const auto options = arguments(command, goes_on, with_debug_log);
    settings.command.insert(settings.command.end(), options.begin(), options.end());
    Run run;
    const auto begin = read_virtual_clock(path("state"));
    run.end = starter_(settings);
    if (schedule_) {
        run.end.duration = read_virtual_clock(path("state")) - begin;
    }
    run.console = read_file(journal("console.txt"));
    run.errors = read_file(journal("errors.txt"));
    run.log = read_file(journal("log.txt"));
    run.results = read_file(journal("results.txt"));
    run.record = TransferRecord(journal("record.tsv"));
    return run;
}

void Workplace::pass(std::chrono::milliseconds length) const {
    if (schedule_) {
        pass_virtual_time(path("state"), length);
    } else {
        std::this_thread::sleep_for(length);
    }
}

std::optional<DeviceState> Workplace::state(const std::string& device) const {
    const auto file = path("state/devices/" + device + "/state.toml");
    return std::filesystem::exists(file) ? std::optional(read_device_state(file)) : std::nullopt;
}

bool Workplace::has_image(const std::string& device, int component) const {
    return std::filesystem::exists(
        path("state/devices/" + device + "/image-" + std::to_string(component) + ".bin"));
}

bool Workplace::holds_image(const Target& target) const {
    const std::string name = std::string("state/devices/") + target.device + "/image-" +
                             std::to_string(target.file.component) + ".bin";
    return !is_broken(target) && read_file(path(name)) == target.body;
}

bool Workplace::is_broken(const Target& target) const {
    const auto held = state(target.device);
    const ComponentState* component = find_component(held, target.file.component);
    return component != nullptr && component->broken;
}

bool Workplace::is_pending(const Target& target) const {
    const auto held = state(target.device);
    const ComponentState* component = find_component(held, target.file.component);
    return component != nullptr && component->pending;
}

bool Workplace::has_marker() const {
    return std::filesystem::exists(path("firmware/scanner.dat.force"));
}

std::optional<std::string> Workplace::read_data() const {
    const auto file = path("read.dat");
    return std::filesystem::exists(file) ? std::optional(read_file(file)) : std::nullopt;
}
