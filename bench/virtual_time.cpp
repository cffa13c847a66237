/// \file
/// The update of the demonstration's till, in real time and in virtual time.
#include "child.h"
#include "simulation.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>

namespace {

constexpr int virtual_runs = 32;

using Environment = std::map<std::string, std::string>;

/// One run, on devices that remember nothing.
ChildCost update(const Simulation& simulation, Environment environment, int number) {
    const std::string name = "till-" + std::to_string(number);
    environment["ZELFWSIM_STATE"] = simulation.path(name);
    ChildCost cost = run_child({ZELFWUPDATE, "-U", "-p", DEMO_FIRMWARE, "-l", "0", "-t", "0"},
                               environment, simulation.path(name + ".txt"));
    if (cost.exit_code != 0) {
        throw std::runtime_error("the update ended with exit code " +
                                 std::to_string(cost.exit_code));
    }
    return cost;
}

void measure(benchmark::State& state, const Simulation& simulation, const Environment& environment,
             int first) {
    double memory = 0;
    for ([[maybe_unused]] const auto iteration : state) {
        const ChildCost cost = update(simulation, environment, first++);
        state.SetIterationTime(cost.wall);
        memory = std::max(memory, cost.memory_mib);
    }
    state.counters["peak_MiB"] = memory;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    try {
        const Simulation simulation;
        const Environment real = simulation.environment(DEMO_BUS);
        Environment virtual_time = real;
        virtual_time["LD_PRELOAD"] += std::string(":") + TIME_OBJECT;
        const auto add = [&](const char* name, const Environment& environment, int runs,
                             int first) {
            benchmark::RegisterBenchmark(
                name,
                [&simulation, &environment, first](benchmark::State& state) {
                    measure(state, simulation, environment, first);
                })
                ->Iterations(runs)
                ->UseManualTime()
                ->Unit(benchmark::kMillisecond);
        };
        add("till/real", real, 1, 0);
        add("till/virtual", virtual_time, virtual_runs, 1);
        benchmark::RunSpecifiedBenchmarks();
    } catch (const std::exception& error) {
        std::cerr << "virtual_time: " << error.what() << '\n';
        return 1;
    }
    return 0;
}
