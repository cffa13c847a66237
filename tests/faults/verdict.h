/// \file
/// Judges a run by what the bus recorded and the devices remember: whether the program says, and
/// left behind, what happened.
#pragma once

#include "injection.h"
#include "workplace.h"

#include <array>
#include <map>
#include <string>
#include <vector>

/// A run without a fault, to compare with.
struct SoundRun {
    Run run;
    std::optional<std::string> data;  ///< that a component was read into
};

/// The sound runs by command; the first without, the second with debug lines.
using SoundRuns = std::map<std::string, std::array<SoundRun, 2>>;

/// The longer one of the two.
std::chrono::milliseconds longest_sound_run(const SoundRuns& sound, const std::string& command);

using Violations = std::vector<std::string>;

void append(Violations& all, const Violations& more);

/// What every run must hold to, struck or not.
Violations judge_ending(const Run& run);
/// The whole verdict over a run with one fault. `has_struck` says whether the fault did.
Violations judge(const Run& run, const Workplace& place, const Injection& injection,
                 const SoundRuns& sound, bool& has_struck);
/// Over a run without a fault: everything succeeded.
Violations judge_sound(const Run& run, const Workplace& place, const std::string& command);
/// Over what a killed run left behind.
Violations judge_killed(const Workplace& place);
/// Over an update that two faults struck: what holds whatever they did. `is_plain` says that no
/// thread was held up.
Violations judge_pair(const Run& run, const Workplace& place, const Injection& first,
                      const Injection& second, bool is_plain);
/// Over a run that was sent a signal: no image is cut in half, and it ends by the signal.
Violations judge_signalled(const Run& run, const Workplace& place, bool has_struck);

/// What a plain update has to do, by what the devices hold before it.
struct Prospect {
    bool plain_update_has_work = false;
    bool needs_force = false;
    bool marker_must_go = false;
};
Prospect foresee(const Workplace& place);
/// Over the update after the fault was removed.
Violations judge_recovery(const Run& run, const Workplace& place, const Prospect& prospect);
/// Every target holds its file's bytes and reports its level.
Violations judge_restored(const Workplace& place);
