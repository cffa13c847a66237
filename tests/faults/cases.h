/// \file
/// The cases of a campaign: which runs are struck by what, and under which order of the threads.
#pragma once

#include "injection.h"
#include "verdict.h"
#include "virtual_time.h"

#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <vector>

inline constexpr const char* campaign_commands[] = {"update", "list", "reset", "read"};

/// What is drawn when a run with the first fault has shown what follows it.
enum class Draw {
    none,
    any_fault,  ///< a second fault of the same device, in this run or in the next one
    refusal,    ///< a second fault, of a message of the same image
    moment,     ///< of a late answer, where held-up threads send the next command later
};

/// Its text names it: "update/printer/control/12/stall", "kill/300", "clock/-3@250", two faults
/// with
/// "+" between them, or with "+next/" when the second strikes the run that follows. "#7" is the
/// order of threads.
struct Case {
    Injection injection{};
    int kill_after = -1;  ///< milliseconds; the case is a kill when not negative
    std::optional<Injection> second{};
    bool second_in_next_run = false;
    Draw draw = Draw::none;
    std::uint32_t draw_seed = 0;
    Schedule schedule{};  ///< in virtual time

    bool is_kill() const { return kill_after >= 0; }
    bool sets_clock() const { return !schedule.clock_step.empty(); }
    /// The row of the summary.
    std::string family() const;
    std::string text() const;
    /// Cases of one target are judged together: whether their faults struck.
    std::string target() const;
};

/// None for a text that names no case.
std::optional<Case> parse_case(const std::string& text);

/// What the cases are made of.
struct CaseSource {
    Family family = Family::faults;
    const SoundRuns& sound;
    std::uint32_t seed = 1;  ///< of all that is drawn
    int aim_past = 0;        ///< transfers
};

/// One round: every place where something of the family can happen.
std::vector<Case> cases_of_family(const CaseSource& source);
/// Kills in real time, at random moments.
std::vector<Case> kill_cases(const CaseSource& source, std::size_t count);

/// The second fault of a case, among the transfers that follow the first one in its run; none when
/// none follows that can be struck.
std::optional<Injection> draw_second(const TransferRecord& record, const Injection& first,
                                     Draw draw, std::mt19937& random);
/// One of the device in the update that follows.
std::optional<Injection> draw_in_next_run(const TransferRecord& record, const Injection& first,
                                          std::mt19937& random);
