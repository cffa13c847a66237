/// \file
/// What a page shows of one run.
#pragma once

#include "common/time_text.h"
#include "zelfwtrace/report/page_words.h"
#include "zelfwtrace/report/run_digest.h"

#include <string>

/// How much of a page's size one run may take.
struct SectionLimits {
    std::size_t dots = 0;  ///< of each chart
    std::size_t conversation_bytes = 0;
};

/// The run in a line: outcome, when, how long, what came of it.
PageJson run_head(const Run& run, const RunDigest& digest, zelf::TimeZone zone);

/// All of it. `anchor` begins the names of its places in the page.
PageJson run_section(const Run& run, const RunDigest& digest, zelf::TimeZone zone,
                     const std::string& anchor, const SectionLimits& limits);
