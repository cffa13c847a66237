#include "zelfwtrace/run_counter.h"

#include "journal/zelfwtrace.h"

#include <algorithm>

namespace {

/// More processes than write to one file at a time; the run that began first is forgotten.
constexpr std::size_t most_running = 256;

}  // namespace

std::uint32_t RunCounter::run_of(const TraceEntry& entry) {
    const auto found = std::find_if(running_.begin(), running_.end(), [&entry](const Run& run) {
        return run.process == entry.process;
    });
    if (entry.kind != trace_kind::version) {
        return found == running_.end() ? 0 : found->number;
    }
    if (found != running_.end()) {
        running_.erase(found);
    } else if (running_.size() >= most_running) {
        running_.erase(running_.begin());
    }
    running_.push_back({entry.process, ++count_});
    return count_;
}
