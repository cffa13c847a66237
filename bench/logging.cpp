/// \file
/// What a line of the log costs, at each level that makes a difference, with and without trace.
#include "journal/output.h"
#include "journal/zelfwtrace.h"
#include "simulation.h"

#include <benchmark/benchmark.h>

#include <memory>

namespace {

constexpr int quiet_console = 0;
constexpr int debug_level = 4;

enum class Journal { log_alone, log_and_trace };

/// Log and trace in a directory of their own.
class Journals {
  public:
    Journals(int level, Journal journal) {
        OutputLevel = level;
        open_log_file(directory_.path("log").c_str());
        if (journal == Journal::log_and_trace) {
            trace = std::make_unique<Trace>(directory_.path("trace").c_str(), 0, 0);
        }
    }
    ~Journals() {
        trace.reset();
        close_log_file();
        OutputLevel = 1;
    }
    Journals(const Journals&) = delete;
    Journals& operator=(const Journals&) = delete;

  private:
    Simulation directory_;
};

void log_message(benchmark::State& state, Journal journal) {
    const Journals journals(quiet_console, journal);
    int number = 0;
    for ([[maybe_unused]] const auto iteration : state) {
        writelog(0, "Sending record %d of %d\n", ++number, 1024);
    }
}

void log_debug_message(benchmark::State& state, int level, Journal journal) {
    const Journals journals(level, journal);
    int number = 0;
    for ([[maybe_unused]] const auto iteration : state) {
        writedebug("WriteFlash rc=%d\n", ++number);
    }
}

}  // namespace

BENCHMARK_CAPTURE(log_message, log, Journal::log_alone)->Name("log/message/trace-off");
BENCHMARK_CAPTURE(log_message, trace, Journal::log_and_trace)->Name("log/message/trace-on");
BENCHMARK_CAPTURE(log_debug_message, quiet, 1, Journal::log_and_trace)
    ->Name("log/debug/level-1/trace-on");
BENCHMARK_CAPTURE(log_debug_message, log, debug_level, Journal::log_alone)
    ->Name("log/debug/level-4/trace-off");
BENCHMARK_CAPTURE(log_debug_message, trace, debug_level, Journal::log_and_trace)
    ->Name("log/debug/level-4/trace-on");

BENCHMARK_MAIN();
