// The twin of a trace, and the updater's lines in it: whatever the trace is, the twin is a bus
// file.
#include "common/file_error.h"
#include "model/bus_file/bus_file.h"
#include "support/check.h"
#include "support/made_trace.h"
#include "support/scratch_directory.h"
#include "twin/plan.h"
#include "twin/story.h"
#include "twin/twin.h"

#include <string>

namespace {

/// Whether there is a twin, and it can be read.
bool is_bus_file(const std::string& trace, zelfsim::WithFaults faults) {
    std::string bus;
    try {
        bus = zelfsim::twin_of(zelfsim::read_story(trace, -1), "trace", faults);
    } catch (const zelf::FileError&) {
        return true;  // the trace met no device
    }
    const std::string file = write_scratch_file(
        "bus.toml", {reinterpret_cast<const std::uint8_t*>(bus.data()), bus.size()});
    try {
        return !zelfsim::read_bus_file(file).devices.empty();
    } catch (const zelf::FileError&) {
        return false;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    const std::string trace = write_scratch_file("trace", made_trace(input));
    check(is_bus_file(trace, zelfsim::WithFaults::yes), "the twin can be read");
    check(is_bus_file(trace, zelfsim::WithFaults::no), "the twin without faults can be read");
    for (const auto& update : zelfsim::read_plan(zelfsim::last_run_lines(trace)).updates) {
        check(update.begin <= update.end, "an update ends behind its beginning");
    }
    return 0;
}
