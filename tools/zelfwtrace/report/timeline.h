/// \file
/// A run's course of time: a lane a device, its phases to scale.
#pragma once

#include "zelfwtrace/explanation.h"
#include "zelfwtrace/report/page_words.h"
#include "zelfwtrace/report/run_digest.h"

#include <string>
#include <vector>

/// The devices of a run, each with the attempts that were made with it.
struct Lanes {
    struct Lane {
        unsigned int product = 0;
        std::string serial;   ///< made safe; may be empty
        bool is_all = false;  ///< the lists of several devices that the trace does not tell apart
    };
    std::vector<Lane> lanes;
    std::vector<std::size_t> of_attempt;
};
Lanes lanes_of(const Run& run, const RunDigest& digest);

/// Where the page tells of the failure of an attempt: "run1-failure2".
std::string failure_anchor(const std::string& run_anchor, std::size_t attempt);

/// `explanations` are those of the run's attempts.
PageJson timeline_of(const Run& run, const RunDigest& digest,
                     const std::vector<Explanation>& explanations, const std::string& run_anchor);
