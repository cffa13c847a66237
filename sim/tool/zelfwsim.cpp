// The command line tool of the simulated bus.
#include "common/file_access.h"
#include "model/bus_file/bus_file.h"
#include "model/bus_file/fault_reach.h"
#include "model/bus_file/fleet.h"
#include "model/device/bus.h"
#include "tool/clone.h"
#include "tool/exit_code.h"
#include "tool/from_trace.h"
#include "tool/rehearse.h"
#include "tool/run.h"
#include "tool/serve.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <exception>
#include <span>
#include <string>
#include <string_view>

namespace {

constexpr const char* help =
    "zelfwsim: the simulated bus of peripherals\n"
    "\n"
    "  zelfwsim check BUSFILE              read a bus file and say what is on it, or what is "
    "wrong\n"
    "  zelfwsim generate N                 print a bus file with N devices (1 to 1000) on hubs\n"
    "  zelfwsim show BUSFILE [STATEDIR]    devices with addresses, components and levels\n"
    "  zelfwsim from-trace TRACE [-o FILE]  print a bus file with the devices of a run, and with\n"
    "                                      what went wrong with them\n"
    "      --run N                         the run, counted from 1; -1, the last one, if not "
    "given\n"
    "  zelfwsim clone [-o FILE]            the same of the devices that are attached, by a list\n"
    "      --updater FILE                  the updater, where it is not found by itself\n"
    "  zelfwsim rehearse TRACE|BUSFILE.toml -p DIRECTORY [OPTIONS]\n"
    "                                      what an update with these files would do: the updater\n"
    "                                      does it on a twin, in virtual time\n"
    "      --json                          as JSON\n"
    "      --updater FILE                  the updater, where it is not found by itself\n"
    "      -a, -f, -d, -s, -o, -0 to -4    the updater's own\n"
    "  zelfwsim serve [OPTIONS] BUSFILE [STATEDIR]\n"
    "                                      offer the devices to real kernels over USB/IP\n"
    "      --attach                        keep them attached to this machine's own kernel "
    "instead\n"
    "      --listen ADDRESS                numeric address, 127.0.0.1 if not given\n"
    "      --port PORT                     3240 if not given, 0 for any free one\n"
    "  zelfwsim run [OPTIONS] BUSFILE -- COMMAND [ARGUMENT ...]\n"
    "                                      run a command on these devices, and on no others\n"
    "      --state STATEDIR                what the devices remember from run to run\n"
    "      --record FILE                   append every transfer to this file\n"
    "      --hubs                          answer for the ports of hubs, as old kernels do\n"
    "      --library DIRECTORY             the simulation's, where it is not found by itself\n"
    "      --preload FILE                  a further object to preload, may be repeated\n"
    "      --virtual                       under a clock and a scheduler of our own: no wait "
    "lasts,\n"
    "                                      and the same arguments give the same run\n"
    "      --seed N                        which of all orders of threads; 0 if not given, the\n"
    "                                      plain one\n"
    "      --hold-up MS                    with a seed: the longest for which a thread that could\n"
    "                                      go on is held up now and then; 20 if not given\n"
    "      --from-epoch SECONDS            what the wall clock shows at first, since 1970\n"
    "      --set-clock SECONDS@MS          after so many milliseconds set it by so much\n"
    "      --limit SECONDS                 the longest run, 3600 if not given\n"
    "      --steps N                       the most calls without a wait, 1000000 if not given\n"
    "      --busy SECONDS                  the longest without a call, 20 if not given; these\n"
    "                                      are seconds of the processor\n"
    "  zelfwsim [COMMAND] --help           this text\n"
    "  zelfwsim [COMMAND] --version        the version\n"
    "\n"
    "Exit codes: 0 success, 1 wrong arguments, 2 the bus file or the state cannot be used.\n"
    "rehearse: 3 when something failed, or would still be due after the update.\n"
    "run gives the command's exit code and ends by the signal that ended it, or with: 120 wrong\n"
    "arguments, 121 the bus file cannot be used, 122 no simulation for the command, 123 the\n"
    "command cannot be started, 124 attached devices cannot be hidden, 125 the command did not\n"
    "get the simulation. In virtual time a run may end with: 116 deadlock, 117 livelock, 118 a\n"
    "call that virtual time does not know.\n";

using zelfsim::BusDescription;
using zelfsim::ComponentDescription;
using zelfsim::ComponentState;
using zelfsim::DeviceDescription;
using zelfsim::DeviceState;
using zelfsim::DeviceStore;

int refuse_arguments(const char* message) {
    std::fprintf(stderr, "zelfwsim: %s\nTry: zelfwsim --help\n", message);
    return wrong_arguments;
}

std::string place(const BusDescription& bus, const DeviceDescription& device) {
    if (!device.parent) {
        return "bus " + std::to_string(device.bus);
    }
    return bus.devices[*device.parent].name + " port " + std::to_string(device.port);
}

void warn_of_unreached_faults(const std::string& file, const BusDescription& bus) {
    std::fflush(stdout);
    for (const DeviceDescription& device : bus.devices) {
        for (const zelfsim::FaultRule& fault : device.faults) {
            if (const auto reason = zelfsim::why_never_reached(device, fault)) {
                std::fprintf(stderr, "%s: warning: the fault %s of \"%s\" never strikes: %s\n",
                             file.c_str(), fault.key().c_str(), device.name.c_str(),
                             reason->c_str());
            }
        }
    }
}

int check(const std::string& file) {
    const BusDescription bus = zelfsim::read_bus_file(file);
    for (const DeviceDescription& device : bus.devices) {
        std::printf("%-20s %04x:%04x  bus %u address %u  %s", device.name.c_str(), device.vendor,
                    device.product, device.bus, device.address, place(bus, device).c_str());
        if (!device.faults.empty()) {
            std::printf("  faults: %zu", device.faults.size());
        }
        std::printf("\n");
    }
    warn_of_unreached_faults(file, bus);
    return success;
}

const char* image_text(const ComponentState& component, bool updated) {
    if (component.broken) {
        return "broken";
    }
    if (component.pending) {
        return "waits for the reset";
    }
    return updated ? "updated" : "factory";
}

void show_component(const ComponentDescription& description, const ComponentState& component,
                    const DeviceStore& store) {
    const zelfsim::ComponentLevel& level =
        component.pending ? *component.pending : component.current;
    std::printf("    %2u  %-24s %s  %-13s  %-10s  %s\n", component.id, description.name.c_str(),
                zelfsim::version_text(level.version).c_str(), zelfsim::type_name(level.type),
                level.random ? "random" : "increasing",
                image_text(component, !store.image(component.id).empty()));
}

void show_device(const BusDescription& bus, const DeviceDescription& device,
                 const std::string& directory) {
    DeviceState state = zelfsim::factory_state(device);
    const DeviceStore store = directory.empty() ? DeviceStore() : DeviceStore(directory);
    store.load(state);
    std::printf("%s  %04x:%04x  bus %u ", device.name.c_str(), device.vendor, device.product,
                device.bus);
    if (state.unplugged) {
        std::printf("unplugged");
    } else {
        std::printf("address %u%s", state.address,
                    state.away_until > zelfsim::now() ? " (restarting)" : "");
    }
    std::printf("  %s", place(bus, device).c_str());
    if (device.flash) {
        std::printf("  flash %s, %u updates, %u failed", zelfsim::phase_name(state.phase),
                    state.updates, state.failed_updates);
    }
    std::printf("\n");
    for (std::size_t index = 0; index < state.components.size(); ++index) {
        show_component(device.flash->components[index], state.components[index], store);
    }
}

int show(const std::string& file, const std::string& state) {
    const BusDescription bus = zelfsim::read_bus_file(file);
    if (!state.empty() && !zelf::is_directory(state)) {
        throw zelfsim::FileError(state, 0, "not a directory");
    }
    for (const DeviceDescription& device : bus.devices) {
        show_device(bus, device, zelfsim::device_directory(state, device.name));
    }
    return success;
}

int generate(std::string_view text) {
    unsigned count = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
    if (error != std::errc{} || end != text.data() + text.size() || count < 1 ||
        count > zelfsim::largest_fleet) {
        return refuse_arguments("generate takes a number from 1 to 1000");
    }
    std::fputs(zelfsim::fleet(count).c_str(), stdout);
    return success;
}

/// Whether the option stands in front, or directly behind a command.
bool asks_for(std::span<const char* const> arguments, std::string_view option) {
    const auto first = arguments.first(std::min<std::size_t>(arguments.size(), 2));
    return std::find(first.begin(), first.end(), option) != first.end();
}

int run(std::span<const char* const> arguments) {
    const std::string_view command = arguments.empty() ? "" : arguments[0];
    const std::size_t count = arguments.size();
    if (asks_for(arguments, "--help") || asks_for(arguments, "-h")) {
        std::fputs(help, stdout);
        return success;
    }
    if (asks_for(arguments, "--version")) {
        std::printf("zelfwsim %s\n", ZELF_VERSION);
        return success;
    }
    if (command == "check" && count == 2) {
        return check(arguments[1]);
    }
    if (command == "generate" && count == 2) {
        return generate(arguments[1]);
    }
    if (command == "show" && (count == 2 || count == 3)) {
        return show(arguments[1], count == 3 ? arguments[2] : "");
    }
    if (command == "run") {
        return run_on_bus(arguments.subspan(1));
    }
    if (command == "serve") {
        return serve(arguments.subspan(1));
    }
    if (command == "from-trace") {
        return make_twin(arguments.subspan(1));
    }
    if (command == "rehearse") {
        return rehearse(arguments.subspan(1));
    }
    if (command == "clone") {
        return clone_devices(arguments.subspan(1));
    }
    if (command == "check" || command == "generate" || command == "show") {
        return refuse_arguments("wrong number of arguments");
    }
    return refuse_arguments(command.empty() ? "no command given" : "unknown command");
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const int code = run(std::span(argv, static_cast<std::size_t>(argc)).subspan(1));
        if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
            std::perror("zelfwsim: standard output");
            return unusable;
        }
        return code;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return unusable;
    }
}
