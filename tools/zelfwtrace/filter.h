/// \file
/// Which records the user asked for.
#pragma once

#include "zelfwtrace/trace_reader.h"

#include <cstdint>
#include <optional>
#include <set>

struct TraceFilter {
    std::set<std::uint16_t> products;  ///< empty: all, and what belongs to no device
    std::set<std::uint32_t> kinds;     ///< empty: all
    std::optional<std::int64_t> run;   ///< from 1; -1 is the last one
    std::optional<std::int64_t> from;  ///< milliseconds since the epoch
    std::optional<std::int64_t> to;    ///< likewise, and the last one that passes

    /// `entry_run` is the number of the entry's run.
    bool passes(const TraceEntry& entry, std::uint32_t entry_run) const;
};
