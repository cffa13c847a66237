#include "zelfwtrace/filter.h"

bool TraceFilter::passes(const TraceEntry& entry, std::uint32_t entry_run) const {
    if (run && *run != entry_run) {
        return false;
    }
    if (!kinds.empty() && !kinds.contains(entry.kind)) {
        return false;
    }
    if (!products.empty() && (!entry.is_transfer() || !products.contains(entry.product()))) {
        return false;
    }
    const std::int64_t time = entry.time_in_milliseconds();
    return time >= from.value_or(time) && time <= to.value_or(time);
}
