/// \file
/// Concludes from a run's story what the cause of a failure was, what state the device is in, and
/// what to do.
#pragma once

#include "zelfwtrace/run_story.h"

#include <optional>
#include <string>
#include <vector>

enum class Outcome {
    well,
    disturbed,  ///< went on, or succeeded, in spite of something
    not_sent,   ///< counts as done in the log, but nothing was sent
    failed,
    unfinished,  ///< the run ends within it
};
const char* outcome_name(Outcome outcome);

struct Explanation {
    Outcome outcome = Outcome::well;
    /// What follows is of everything but `well`.
    const Cause* cause = nullptr;
    std::string state;   ///< of the device
    std::string remedy;  ///< the cause's, with what the state demands
    std::vector<StoryLine> evidence;
    std::vector<StoryLine> consequences;
};

/// Of `run.attempts[index]`.
Explanation explain_attempt(const Run& run, std::size_t index);

/// Of the run itself: one that could not begin, found nothing or has no end. Without a cause of its
/// own its outcome is the worst one of its attempts.
Explanation explain_run(const Run& run);

/// "record 17 of 50", "the erase"...; and the pace of the records, 0 when there is none.
std::string step_words(const ImageProgress& image);
double kilobytes_per_second(const ImageProgress& image);
