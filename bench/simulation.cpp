#include "simulation.h"

#include "child.h"
#include "run/guarded_environment.h"
#include "run/hidden_devices.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace {

constexpr int devices_per_bus = 64;

void write_file(const std::string& path, const std::string& text) {
    std::ofstream file(path);
    file << text;
    if (!file.flush()) {
        throw std::runtime_error("can't write " + path);
    }
}

std::string hub(int bus) {
    return "[[hub]]\nname = \"root" + std::to_string(bus) + "\"\nbus = " + std::to_string(bus) +
           "\nports = " + std::to_string(devices_per_bus) + "\n";
}

std::string printer(int index) {
    const std::string number = std::to_string(index);
    return "[[device]]\nname = \"printer" + number + "\"\nhub = \"root" +
           std::to_string(index / devices_per_bus + 1) +
           "\"\nport = " + std::to_string(index % devices_per_bus + 1) +
           "\nvendor = 0x7A01\nproduct = 0x3C35\nserial = \"PR" + number +
           "\"\n[[device.interface]]\nkind = \"flash\"\nlist = \"extended\"\n"
           "[[device.interface.component]]\nid = 0\nlevel = \"01.00\"\n";
}

std::string timing_table(const DeviceTiming& timing) {
    const std::string answer = std::to_string(timing.answer);
    return "[timing]\ntransfer_ms = " + std::to_string(timing.transfer) + "\nquery_ms = " + answer +
           "\nerase_ms = " + answer + "\nrecord_ms = " + answer + "\nchecksum_ms = " + answer +
           "\nreset_ms = 0\n";
}

}  // namespace

Simulation::Simulation() {
    if (geteuid() == 0) {
        zelfsim::hide_devices_if_any();
    }
    // In memory where that can be had: the disk is nobody's part of the question.
    const std::filesystem::path memory = "/dev/shm";
    const bool has_memory = std::filesystem::is_directory(memory);
    std::string name =
        ((has_memory ? memory : std::filesystem::temp_directory_path()) / "zelf-bench-XXXXXX")
            .string();
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("can't make a directory like " + name);
    }
    directory_ = name;
}

Simulation::~Simulation() {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

std::string Simulation::make_bus(const std::string& name, int devices,
                                 const DeviceTiming& timing) const {
    std::string text = timing_table(timing);
    for (int bus = 1; bus <= (devices - 1) / devices_per_bus + 1; ++bus) {
        text += hub(bus);
    }
    for (int index = 0; index < devices; ++index) {
        text += printer(index);
    }
    write_file(path(name), text);
    return path(name);
}

std::string Simulation::make_firmware(const std::string& name, int records) const {
    std::string directory = path(name);
    std::filesystem::create_directory(directory);
    const std::string description = directory + "/printer.toml";
    write_file(description,
               "product = 0x3C35\ncomponent = 0\nlevel = \"01.01\"\n[data]\npattern = " +
                   std::to_string(records - information_records) +
                   "\nrecord_size = " + std::to_string(record_payload) + "\n");
    const ChildCost cost =
        run_child({ZELFWFILE, "make", description, "-o", directory + "/printer.dat"}, {});
    if (cost.exit_code != 0) {
        throw std::runtime_error("can't make " + directory + "/printer.dat");
    }
    return directory;
}

std::map<std::string, std::string> Simulation::environment(const std::string& bus) const {
    auto variables = zelfsim::guarded_environment(SIMULATION_DIRECTORY);
    variables["ZELFWSIM_BUS"] = bus;
    // For a benchmark that opens the library itself; it has no guard.
    variables["LTDL_LIBRARY_PATH"] = SIMULATION_DIRECTORY;
    return variables;
}

int count_control_transfers(const std::string& record) {
    std::ifstream file(record);
    int count = 0;
    for (std::string line; std::getline(file, line);) {
        count += line.find("\tcontrol\t") != std::string::npos ? 1 : 0;
    }
    return count;
}
