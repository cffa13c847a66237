/// \file
/// Whole runs of the built program, each beside the shortest time it could have taken or beside
/// another program that does the same work.
#include "child.h"
#include "floor.h"
#include "simulation.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <filesystem>
#include <future>
#include <iostream>
#include <list>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr int record_counts[] = {64, 512, 1024, 4096};
constexpr int device_counts[] = {1, 8, 32, 128};
constexpr int most_firmware_files = 256;
constexpr int records_of_a_mebibyte = 4096;
constexpr int runs_of_a_list = 3;

/// A run that mostly sleeps.
struct LongRun {
    std::string name;
    double floor = 0;
    int records = 0;
    int devices = 0;
    std::future<ChildCost> cost{};
};

std::vector<std::string> updater(const Simulation& simulation, const std::string& name,
                                 std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), ZELFWUPDATE);
    for (const char* const journal : {"-l", "-t"}) {
        arguments.emplace_back(journal);
        arguments.push_back(simulation.path(name + journal));
    }
    return arguments;
}

std::future<ChildCost> start(const Simulation& simulation, const std::string& name,
                             const std::string& bus, const std::vector<std::string>& arguments,
                             const std::string& record = "") {
    auto environment = simulation.environment(bus);
    if (!record.empty()) {
        environment["ZELFWSIM_RECORD"] = record;
    }
    return std::async(std::launch::async, run_child, updater(simulation, name, arguments),
                      environment, simulation.path(name + ".txt"));
}

/// The middle one of several runs, one after the other. In a list a single answer that is looked
/// for a moment too early costs 15 ms: of 8 devices that is more than a hundredth of the whole.
std::future<ChildCost> start_median(const Simulation& simulation, const std::string& name,
                                    const std::string& bus,
                                    const std::vector<std::string>& arguments) {
    const auto runs_one_by_one = [command = updater(simulation, name, arguments),
                                  environment = simulation.environment(bus),
                                  console = simulation.path(name + ".txt")] {
        std::vector<ChildCost> costs;
        for (int i = 0; i < runs_of_a_list; ++i) {
            costs.push_back(run_child(command, environment, console));
            if (costs.back().exit_code != 0) {
                return costs.back();
            }
        }
        const auto middle = costs.begin() + runs_of_a_list / 2;
        std::nth_element(
            costs.begin(), middle, costs.end(),
            [](const ChildCost& left, const ChildCost& right) { return left.wall < right.wall; });
        return *middle;
    };
    return std::async(std::launch::async, runs_one_by_one);
}

void insist_on_success(const ChildCost& cost, const std::string& name) {
    if (cost.exit_code != 0) {
        throw std::runtime_error(name + " ended with exit code " + std::to_string(cost.exit_code));
    }
}

/// The control transfers of an update beside those that carry its records.
int transfers_beside_records(const Simulation& simulation) {
    constexpr int records = 8;
    const std::string record = simulation.path("transfers.tsv");
    const ChildCost cost = start(simulation, "count", simulation.make_bus("count.toml", 1, instant),
                                 {"-U", "-p", simulation.make_firmware("count", records)}, record)
                               .get();
    insist_on_success(cost, "the run that counts transfers");
    return count_control_transfers(record) - records;
}

/// The device with realistic times is busy on the wire for each control transfer.
double wire_time(const DeviceTiming& timing, int transfers) {
    return timing.transfer * transfers / 1000;
}

void start_updates(const Simulation& simulation, std::list<LongRun>& runs) {
    const int other_transfers = transfers_beside_records(simulation);
    for (const int records : record_counts) {
        const std::string number = std::to_string(records);
        const std::string firmware = simulation.make_firmware("firmware" + number, records);
        for (const bool at_once : {true, false}) {
            const DeviceTiming timing = at_once ? instant : full_speed;
            const std::string name =
                std::string("update/") + (at_once ? "instant" : "full-speed") + "/" + number;
            const std::string stem = (at_once ? "instant" : "full-speed") + number;
            const std::string bus = simulation.make_bus(stem + ".toml", 1, timing);
            const double floor =
                update_floor(records) + wire_time(timing, records + other_transfers);
            runs.push_back({.name = name,
                            .floor = floor,
                            .records = records,
                            .devices = 1,
                            .cost = start(simulation, stem, bus, {"-U", "-p", firmware})});
        }
    }
}

void start_lists(const Simulation& simulation, std::list<LongRun>& runs) {
    constexpr DeviceTiming timing = {.transfer = 0, .answer = 1};
    for (const int devices : device_counts) {
        const std::string stem = "list" + std::to_string(devices);
        const std::string bus = simulation.make_bus(stem + ".toml", devices, timing);
        runs.push_back({.name = "list/" + std::to_string(devices),
                        .floor = list_floor(devices),
                        .records = 0,
                        .devices = devices,
                        .cost = start_median(simulation, stem, bus, {"-L"})});
    }
}

void report(benchmark::State& state, const LongRun& run, const ChildCost& cost) {
    for ([[maybe_unused]] const auto iteration : state) {
        state.SetIterationTime(cost.wall);
    }
    state.counters["floor_s"] = run.floor;
    state.counters["wall_over_floor"] = cost.wall / run.floor;
    state.counters["cpu_s"] = cost.cpu;
    state.counters["peak_MiB"] = cost.memory_mib;
    if (run.records > 0) {
        state.counters["records"] = run.records;
    }
    state.counters["devices"] = run.devices;
}

/// They sleep for more than nine tenths of their time, so they do it side by side.
void measure_long_runs(const Simulation& simulation, std::list<LongRun>& runs) {
    start_updates(simulation, runs);
    start_lists(simulation, runs);
    for (LongRun& run : runs) {
        const ChildCost cost = run.cost.get();
        insist_on_success(cost, run.name);
        benchmark::RegisterBenchmark(
            run.name.c_str(), [&run, cost](benchmark::State& state) { report(state, run, cost); })
            ->Iterations(1)
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
    }
}

/// Measures a short command again and again.
void add_command(const std::string& name, const std::vector<std::string>& command,
                 const std::map<std::string, std::string>& environment,
                 const std::string& console) {
    benchmark::RegisterBenchmark(
        name.c_str(),
        [=](benchmark::State& state) {
            double memory = 0;
            double cpu = 0;
            for ([[maybe_unused]] const auto iteration : state) {
                const ChildCost cost = run_child(command, environment, console);
                if (cost.exit_code != 0) {
                    state.SkipWithError("it failed");
                    break;
                }
                state.SetIterationTime(cost.wall);
                memory = std::max(memory, cost.memory_mib);
                cpu += cost.cpu;
            }
            state.counters["peak_MiB"] = memory;
            state.counters["cpu_s"] = benchmark::Counter(cpu, benchmark::Counter::kAvgIterations);
        })
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
}

void add_short_runs(const Simulation& simulation) {
    const auto environment = simulation.environment(simulation.path("list1.toml"));
    const std::string firmware = simulation.make_firmware("large", records_of_a_mebibyte);
    const std::string file = firmware + "/printer.dat";
    const std::string many = simulation.path("many");
    std::filesystem::create_directory(many);
    for (int i = 0; i < most_firmware_files; ++i) {
        std::filesystem::copy_file(file, many + "/" + std::to_string(i) + ".dat");
    }
    const std::string console = simulation.path("console.txt");
    // Over one file each program shows what its start and its end take.
    const std::pair<std::string, std::string> directories[] = {{"256", many}, {"1", firmware}};
    for (const auto& [count, directory] : directories) {
        add_command("files/show-" + count, updater(simulation, "show", {"-S", "-p", directory}),
                    environment, console);
        add_command("files/bare-" + count,
                    {BARE_LISTER, directory, simulation.path("bare-l"), simulation.path("bare-t")},
                    {}, console);
    }
    add_command("display/1-MiB", updater(simulation, "display", {"-D", file}), environment,
                console);
    add_command("display/xxd", {"xxd", file}, {}, console);
    add_command("start/version", updater(simulation, "version", {"-V"}), environment, console);
    add_command("start/true", {"/bin/true"}, {}, console);
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    try {
        const Simulation simulation;
        std::list<LongRun> runs;
        measure_long_runs(simulation, runs);
        add_short_runs(simulation);
        benchmark::RunSpecifiedBenchmarks();
    } catch (const std::exception& error) {
        std::cerr << "whole_runs: " << error.what() << '\n';
        return 1;
    }
    return 0;
}
