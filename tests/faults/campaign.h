/// \file
/// The cases of a campaign, run side by side: a case is a run with a fault or with a kill, its
/// verdict, and the recovery after it.
#pragma once

#include "cases.h"
#include "verdict.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

struct CampaignSettings {
    std::size_t count = 0;  ///< injections, chosen by the seed; 0: all
    std::size_t kills = 0;  ///< runs that are killed at a random moment
    std::uint32_t seed = 1;
    std::size_t slice = 0, slices = 1;  ///< of the chosen cases, target by target
    std::string only;                   ///< injections whose text contains this
    std::string repeat;                 ///< this case alone; its files are kept when it fails
    std::string program = ZELFWUPDATE;
    unsigned int jobs = 32;
    int aim_past = 0;  ///< injections are meant for the transfer as many behind the right one
    bool virtual_time = false;
    Family family = Family::faults;
    std::uint32_t schedules = 1;  ///< of each case, in virtual time
    bool shrink = false;          ///< take from a violation what it does not need
    bool until_found = false;     ///< end with the first violation
    bool start_each = false;      ///< no forks of a program that is loaded already
    bool pin = false;             ///< each job stays on one processor
};

/// A row of the summary.
struct Tally {
    int injections = 0;
    int runs = 0;
    int missed = 0;  ///< the fault's transfer did not come
    int violations = 0;
};

/// How many faults of one target ("control/stall") struck.
struct Strikes {
    int injections = 0;
    int missed = 0;

    /// Too many to blame the runs, no two of which have quite the same transfers. Of fewer than
    /// four nothing is said.
    bool mostly_missed() const { return injections >= 4 && missed * 2 > injections; }
};

class Campaign {
  public:
    explicit Campaign(CampaignSettings settings);

    /// Runs all cases and prints each violation as it is found. False when there was one, or when
    /// the faults of a target mostly missed.
    bool run();
    void print_summary() const;
    /// The cases that were judged.
    int count() const;

  private:
    struct Outcome {
        Violations violations;
        int runs = 0;
        std::chrono::milliseconds duration{};
        std::size_t strikes = 0;  ///< of two faults
        bool has_struck = true;
        bool is_late = false;  ///< took longer than its bound, and no more was wrong

        void count(const Run& run) {
            ++runs;
            duration += run.end.duration;
        }
    };

    bool measure_sound_runs();
    std::vector<Case> chosen_cases() const;
    std::vector<Case> cases_in_rounds() const;
    std::vector<Case> slice_of(std::vector<Case> cases) const;
    /// Draws what a case leaves open.
    Case complete(Case one) const;
    Case with_moment(Case one) const;
    Case with_second_fault(Case one, Draw draw) const;
    void run_all(const std::vector<Case>& cases, unsigned int jobs, bool is_last_chance);
    Outcome run_case(const Case& one) const;
    Outcome run_injection(const Case& one, Workplace& place) const;
    Outcome run_kill(const Case& one, Workplace& place) const;
    Outcome run_signalled(const Case& one, Workplace& place) const;
    Outcome run_pair(const Case& one, Workplace& place) const;
    Outcome run_with_set_clock(const Case& one, Workplace& place) const;
    Case shrink(const Case& one) const;
    Outcome try_case(const Case& one) const;
    std::optional<Schedule> schedule_of(const Case& one) const;
    Workplace::Starter starter() const;
    void recover(Workplace& place, Outcome& outcome) const;
    std::chrono::milliseconds bound_of(const Case& one) const;
    void take(const Case& one, const Outcome& outcome, bool is_last_chance);
    void report(const Case& one, const Outcome& outcome) const;
    bool report_missed() const;

    CampaignSettings settings_;
    SoundRuns sound_;
    std::map<std::string, Tally> tallies_;
    std::map<std::string, Strikes> strikes_;  ///< by target
    std::vector<Case> late_cases_;
    int late_count_ = 0;
    std::chrono::milliseconds duration_{};
};
