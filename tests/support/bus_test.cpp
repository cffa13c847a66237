#include "support/bus_test.h"

#include <cstdio>
#include <sstream>

BusTest::BusTest() {
    std::filesystem::create_directory(directory_.path("firmware"));
    settings.program = ZELFWUPDATE;
    settings.directory = directory_.path();
    settings.console_file = directory_.path("console.txt");
    settings.error_file = directory_.path("errors.txt");
    settings.simulation = SIMULATION_DIRECTORY;
    settings.environment["ZELFWSIM_BUS"] = path("bus.toml");
    settings.environment["ZELFWSIM_STATE"] = path("state");
    settings.environment["ZELFWSIM_RECORD"] = path("record.tsv");
    settings.at_end = [this](const std::vector<std::string>& arguments, const RunResult& run) {
        ends.judge(arguments, run);
    };
    set_bus(quick_timing());
}

void BusTest::set_bus(const std::string& text) {
    write_file(directory_.path("bus.toml"), text);
}

std::string BusTest::add_firmware(const std::string& name, const FirmwareFile& file) {
    return add_raw_firmware(name, file.bytes());
}

std::string BusTest::add_raw_firmware(const std::string& name, const std::string& bytes) {
    write_file(firmware_path(name), bytes);
    return firmware_path(name);
}

ProgramSettings BusTest::settings_of_whole_run() const {
    ProgramSettings all = settings;
    // The sanitizers have clocks and threads of their own.
    const std::string clock = TIME_OBJECT;
    if (!is_real_time_ && !clock.empty()) {
        all.preloads.insert(all.preloads.begin(), clock);
    }
    return all;
}

std::vector<std::string> BusTest::with_journals(std::vector<std::string> arguments) {
    // In front: a test's own time-out comes later and holds.
    arguments.insert(arguments.begin(), {"-0", std::to_string(information_timeout)});
    arguments.insert(arguments.end(), {"-l", path("run.log"), "-t", path("trace.bin")});
    std::filesystem::remove(path("record.tsv"));
    std::filesystem::remove(path("trace.bin"));
    return arguments;
}

std::unique_ptr<ProgramProcess> BusTest::start(std::vector<std::string> arguments) {
    return std::make_unique<ProgramProcess>(settings, with_journals(std::move(arguments)));
}

RunResult BusTest::run(std::vector<std::string> arguments) {
    const ProgramSettings whole_run = settings_of_whole_run();
    return ProgramProcess(whole_run, with_journals(std::move(arguments))).finish();
}

RunResult BusTest::run_plainly(const std::vector<std::string>& arguments) {
    return ProgramProcess(settings, arguments).finish();
}

RunResult BusTest::update(std::vector<std::string> further) {
    std::vector<std::string> arguments = {"-U", "-p", firmware_directory()};
    arguments.insert(arguments.end(), further.begin(), further.end());
    return run(arguments);
}

DeviceState BusTest::state(const std::string& device) const {
    return read_device_state(path("state/devices/" + device + "/state.toml"));
}

std::string BusTest::image(const std::string& device, int component) const {
    return read_file(
        path("state/devices/" + device + "/image-" + std::to_string(component) + ".bin"));
}

std::vector<std::string> BusTest::history(const std::string& device) const {
    std::vector<std::string> results;
    std::istringstream lines(read_file(path("state/devices/" + device + "/history.tsv")));
    for (std::string line; std::getline(lines, line);) {
        results.push_back(line.substr(line.rfind('\t') + 1));
    }
    return results;
}

int count_lines(const std::string& text, const std::string& line) {
    int count = 0;
    std::istringstream lines(text);
    for (std::string one; std::getline(lines, one);) {
        count += one == line ? 1 : 0;
    }
    return count;
}

std::string list_line(unsigned int product, int component, const std::string& level,
                      const std::string& serial) {
    char text[256];
    snprintf(text, sizeof(text), "PID: %04x  COMP: %02x  TYPE: FW   EC: %s    (SN='%s')", product,
             static_cast<unsigned int>(component), level.c_str(), serial.c_str());
    return text;
}
