// What holds for the run of every command, and the verdicts over what follows a fault.
#include "verdict.h"

#include "journal.h"
#include "verdict_parts.h"

#include <algorithm>
#include <csignal>

namespace {

std::string level_text(const std::string& digits) {
    return digits.substr(0, 2) + "." + digits.substr(2);
}

/// The device without a firmware file is listed and reset as the others, and otherwise left alone.
Violations judge_bystander(const Run& run, const Workplace& place, const std::string& command) {
    Violations found;
    if (place.has_image(bystander, 0)) {
        found.emplace_back("the device without a file was sent an image");
    }
    if (command == "update" && !run.record.class_requests(bystander).empty()) {
        found.emplace_back("the device without a file was sent a command");
    }
    return found;
}

/// Whether the program is told that the device took what it did not take.
bool may_lie(const Injection& injection) {
    const std::string action = injection.kind->action;
    return action == "answer" || action == "short" || action == "empty";
}

/// Whether the log says that it can't be sure. Or no message of the image was sent after a report
/// too many: a reader that is held up hands it over as the next one's answer, and what comes behind
/// the last one nobody reads.
bool is_in_doubt(const Run& run, const Target& target, const Claim& claim, const Injection& first,
                 bool is_plain) {
    constexpr double at_once = 1;
    constexpr double longest_hand_over = 45;
    return claim.is_uncertain ||
           (first.belongs_to(Family::unasked) &&
            !has_visible_surplus(run.record, target, is_plain ? at_once : longest_hand_over));
}

}  // namespace

void append(Violations& all, const Violations& more) {
    all.insert(all.end(), more.begin(), more.end());
}

std::chrono::milliseconds longest_sound_run(const SoundRuns& sound, const std::string& command) {
    const auto& runs = sound.at(command);
    return std::max(runs[0].run.end.duration, runs[1].run.end.duration);
}

Violations judge_ending(const Run& run) {
    Violations found;
    if (run.end.killed) {
        found.emplace_back("hangs");
        return found;
    }
    if (run.end.signal != 0) {
        found.push_back("ended by signal " + std::to_string(run.end.signal));
    }
    const int code = run.end.exit_code;
    if (run.end.signal == 0 && code != exit_ok && code != exit_no_devices &&
        code != exit_nothing_updated && code != exit_device_failed) {
        found.push_back("exit code " + std::to_string(code));
    }
    if (!run.errors.empty()) {
        found.push_back("standard error: " + run.errors.substr(0, 2000));
    }
    if (!run.record.of_kind("-", "misuse").empty()) {
        found.emplace_back("a closed handle was used");
    }
    for (const char* device : {"printer", "scanner", bystander}) {
        if (!run.record.of_kind(device, "misuse").empty()) {
            found.push_back(std::string("a closed handle was used, of the ") + device);
        }
    }
    if (run.log.find("USB Flash ended at") == std::string::npos) {
        found.emplace_back("the log has no end");
    }
    if (!read_results(run.results).is_well_formed) {
        found.push_back("the result file is not well formed: " + run.results);
    }
    return found;
}

Violations judge(const Run& run, const Workplace& place, const Injection& injection,
                 const SoundRuns& sound, bool& has_struck) {
    Violations found = judge_ending(run);
    const Strike strike = find_strike(run.record, injection);
    has_struck = injection.belongs_to(Family::late) ? strike.meets_next : strike.has_struck;
    if (run.end.killed) {
        return found;
    }
    append(found, judge_bystander(run, place, injection.command));
    const SoundRun& sound_run = sound.at(injection.command)[injection.has_debug_log() ? 1 : 0];
    if (injection.command == "update") {
        append(found, judge_update({run, place, injection, strike, sound_run}));
    } else {
        append(found, judge_no_update(place));
        append(found, injection.command == "list"
                          ? judge_list({run, place, injection, strike, sound_run})
                          : judge_operation({run, place, injection, strike, sound_run}));
    }
    return found;
}

Violations judge_sound(const Run& run, const Workplace& place, const std::string& command) {
    Violations found = judge_ending(run);
    if (run.end.exit_code != exit_ok) {
        found.push_back("exit code " + std::to_string(run.end.exit_code) + " without a fault");
    }
    append(found, judge_bystander(run, place, command));
    append(found, command == "update" ? judge_restored(place) : judge_no_update(place));
    return found;
}

Violations judge_no_update(const Workplace& place) {
    Violations found;
    for (const Target& target : targets()) {
        if (place.has_image(target.device, target.file.component) || place.is_broken(target)) {
            found.push_back(std::string(target.device) + " was changed");
        }
    }
    if (!place.has_marker()) {
        found.emplace_back("the marker is gone");
    }
    return found;
}

Violations judge_killed(const Workplace& place) {
    Violations found;
    for (const Target& target : targets()) {
        if (target.is_forced && !place.has_marker() && !place.holds_image(target)) {
            found.emplace_back("the marker is gone, and its update has not succeeded");
        }
    }
    if (place.has_image(bystander, 0)) {
        found.emplace_back("the device without a file was sent an image");
    }
    return found;
}

Violations judge_pair(const Run& run, const Workplace& place, const Injection& first,
                      const Injection& second, bool is_plain) {
    Violations found = judge_ending(run);
    append(found, judge_bystander(run, place, "update"));
    const Journal journal = read_journal(run.log);
    for (const Target& target : targets()) {
        // One that was left alone counts as updated.
        if (place.holds_image(target) || !has_sent_image(run.record, target)) {
            continue;
        }
        const Claim* claim =
            journal.find(static_cast<int>(target.file.product), target.file.component);
        const bool lied_to =
            target.device == first.device &&
            (may_lie(first) || may_lie(second) ||
             (claim != nullptr && is_in_doubt(run, target, *claim, first, is_plain)));
        if (claim != nullptr && claim->rc == 0 && !lied_to) {
            found.push_back(std::string(target.device) + " counts as updated, and is not");
        }
        if (target.is_forced && !place.has_marker() && !lied_to) {
            found.emplace_back("the marker is gone, and its update has not succeeded");
        }
        if (target.device != first.device) {
            found.push_back(std::string(target.device) + " was not struck, and is not updated");
        }
    }
    return found;
}

Violations judge_signalled(const Run& run, const Workplace& place, bool has_struck) {
    Violations found = judge_killed(place);
    const bool by_signal =
        run.end.signal == SIGTERM || run.end.signal == SIGINT || run.end.signal == SIGHUP;
    if (run.end.killed) {
        found.emplace_back("hangs");
    } else if (has_struck && !by_signal) {
        found.push_back("exit code " + std::to_string(run.end.exit_code) + ", signal " +
                        std::to_string(run.end.signal) + " after a signal");
    }
    if (!run.errors.empty()) {
        found.push_back("standard error: " + run.errors.substr(0, 2000));
    }
    for (const Target& target : targets()) {
        if (place.is_broken(target)) {
            found.push_back(std::string(target.device) + " was left with half an image");
        }
    }
    return found;
}

Prospect foresee(const Workplace& place) {
    Prospect prospect;
    for (const Target& target : targets()) {
        const bool is_whole = place.holds_image(target) && !place.is_pending(target);
        if (target.is_forced) {
            // A broken component reports a lower level than its file's: that needs no marker.
            const bool is_broken = place.is_broken(target);
            prospect.marker_must_go = place.has_marker() && !is_broken;
            prospect.plain_update_has_work |= place.has_marker() || is_broken;
            prospect.needs_force = !is_whole && !is_broken && !place.has_marker();
        } else {
            prospect.plain_update_has_work |= !is_whole;
        }
    }
    return prospect;
}

Violations judge_recovery(const Run& run, const Workplace& place, const Prospect& prospect) {
    Violations found = judge_ending(run);
    const int expected = prospect.plain_update_has_work ? exit_ok : exit_nothing_updated;
    if (run.end.exit_code != expected) {
        found.push_back("exit code " + std::to_string(run.end.exit_code) + " and not " +
                        std::to_string(expected));
    }
    if (prospect.marker_must_go && place.has_marker()) {
        found.emplace_back("the marker is still there");
    }
    if (!prospect.needs_force) {
        append(found, judge_restored(place));
    }
    return found;
}

Violations judge_restored(const Workplace& place) {
    Violations found;
    for (const Target& target : targets()) {
        const std::string name =
            std::string(target.device) + " component " + std::to_string(target.file.component);
        if (!place.holds_image(target)) {
            found.push_back(name + " does not hold its file's bytes");
        } else if (place.is_pending(target)) {
            found.push_back(name + " has not restarted with its image");
        } else if (place.state(target.device)->component(target.file.component).level !=
                   level_text(target.file.level)) {
            found.push_back(name + " has another level than its file");
        }
    }
    return found;
}
