/// \file
/// The parts of a verdict, one for each command.
#pragma once

#include "strike.h"
#include "verdict.h"

// Of the program.
inline constexpr int exit_ok = 0;
inline constexpr int exit_no_devices = 5;
inline constexpr int exit_nothing_updated = 6;
inline constexpr int exit_device_failed = 8;

/// All that is known of a run with a fault.
struct Evidence {
    const Run& run;
    const Workplace& place;
    const Injection& injection;
    const Strike& strike;
    const SoundRun& sound;

    bool is_struck(const std::string& device) const {
        return strike.has_struck && device == injection.device;
    }
};

Violations judge_update(const Evidence& evidence);
Violations judge_list(const Evidence& evidence);
/// Reset, and the read of a component.
Violations judge_operation(const Evidence& evidence);
/// The devices' firmware and the marker are as they were.
Violations judge_no_update(const Workplace& place);
