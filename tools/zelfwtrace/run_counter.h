/// \file
/// Which run of the updater a record belongs to, in a file that several processes may have written.
#pragma once

#include "zelfwtrace/trace_reader.h"

#include <cstdint>
#include <vector>

class RunCounter {
  public:
    /// The number of the entry's run, from 1 in the order of their beginnings; 0 for a record whose
    /// beginning the file does not have. To be asked for every record, in the order of the file.
    std::uint32_t run_of(const TraceEntry& entry);
    /// How many have begun so far.
    std::uint32_t count() const { return count_; }

  private:
    struct Run {
        std::uint32_t process;
        std::uint32_t number;
    };

    std::uint32_t count_ = 0;
    std::vector<Run> running_;  ///< the latest of each process
};
