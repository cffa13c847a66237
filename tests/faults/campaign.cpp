#include "campaign.h"

#include "strike.h"
#include "support/bus_text.h"
#include "warm_child.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <exception>
#include <functional>
#include <iterator>
#include <mutex>
#include <numeric>
#include <random>
#include <thread>
#include <utility>

namespace {

using std::chrono::milliseconds;

/// What a run may take beyond the protocol's own waits.
constexpr milliseconds grace{2000};
/// A run that takes longer than its bound by this hangs; less may be the machine's doing.
constexpr milliseconds until_hang{30000};
/// A device that was reset or replugged is back after this.
constexpr milliseconds return_time{400};

constexpr unsigned int jobs_of_late_cases = 4;

/// Calls `work` with 0 to `count` - 1, in as many threads as there are jobs.
void in_parallel(std::size_t count, unsigned int jobs,
                 const std::function<void(std::size_t)>& work) {
    std::atomic<std::size_t> next{0};
    std::vector<std::thread> workers;
    for (unsigned int i = 0; i < jobs && i < count; ++i) {
        workers.emplace_back([&] {
            for (std::size_t at = next++; at < count; at = next++) {
                work(at);
            }
        });
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
}

/// The longest that the program may wait because of the fault, by its own time-outs.
milliseconds wait_of(const Injection& injection) {
    const std::string action = injection.kind->action;
    const bool waits_for_transfer = action == "timeout" && injection.event == "control";
    return milliseconds(waits_for_transfer ? transfer_timeout : information_timeout);
}

/// Enough of one target to say whether its faults strike.
constexpr int fewest_of_a_target = 5;

/// Takes as many as are wanted, by the seed, but first some of each target; the rest is dropped.
template <typename Item>
void choose(std::vector<Item>& items, std::size_t count, std::uint32_t seed) {
    std::mt19937 random(seed);
    std::shuffle(items.begin(), items.end(), random);
    std::map<std::string, int> taken;
    std::stable_partition(items.begin(), items.end(), [&taken](const Item& one) {
        return ++taken[one.target()] <= fewest_of_a_target;
    });
    if (count > 0 && count < items.size()) {
        items.erase(items.begin() + static_cast<std::ptrdiff_t>(count), items.end());
    }
}

}  // namespace

Campaign::Campaign(CampaignSettings settings) : settings_(std::move(settings)) {}

bool Campaign::run() {
    if (!measure_sound_runs()) {
        return false;
    }
    std::vector<Case> cases;
    if (settings_.repeat.empty()) {
        cases = chosen_cases();
    } else {
        const auto one = parse_case(settings_.repeat);
        if (!one) {
            std::fprintf(stderr, "No such case: %s\n", settings_.repeat.c_str());
            return false;
        }
        cases.push_back(*one);
    }
    run_all(cases, settings_.jobs, false);
    // What was too slow among many is judged by a run among few.
    const std::vector<Case> late = std::move(late_cases_);
    late_count_ = static_cast<int>(late.size());
    run_all(late, jobs_of_late_cases, true);
    const bool has_struck = settings_.until_found || !report_missed();
    return has_struck && std::all_of(tallies_.begin(), tallies_.end(),
                                     [](const auto& row) { return row.second.violations == 0; });
}

bool Campaign::report_missed() const {
    bool found = false;
    for (const auto& [target, strikes] : strikes_) {
        if (strikes.mostly_missed()) {
            std::printf("MISSED %s: %d of %d faults did not strike\n", target.c_str(),
                        strikes.missed, strikes.injections);
            found = true;
        }
    }
    return found;
}

std::optional<Schedule> Campaign::schedule_of(const Case& one) const {
    return settings_.virtual_time ? std::optional(one.schedule) : std::nullopt;
}

// A violation that is repeated is one of a process that was started as every other.
Workplace::Starter Campaign::starter() const {
    return settings_.virtual_time && settings_.repeat.empty() && !settings_.start_each
               ? run_warm_child
               : run_child;
}

bool Campaign::measure_sound_runs() {
    std::mutex mutex;
    bool is_sound = true;
    for (const char* command : campaign_commands) {
        sound_[command];
    }
    in_parallel(std::size(campaign_commands) * 2, 8, [&](std::size_t i) {
        const std::string command = campaign_commands[i / 2];
        Workplace place(settings_.program, schedule_of({}), run_child);
        constexpr milliseconds longest{120000};
        SoundRun& sound = sound_[command][i % 2];
        sound.run = place.run(command, false, "", i % 2 == 1, longest);
        sound.data = place.read_data();
        const std::lock_guard lock(mutex);
        for (const std::string& violation : judge_sound(sound.run, place, command)) {
            std::printf("VIOLATION without a fault, %s: %s\n", command.c_str(), violation.c_str());
            is_sound = false;
        }
    });
    return is_sound;
}

/// Rounds until there are as many as are wanted. What is drawn is drawn anew in each, and the first
/// alone has the plain order of threads.
std::vector<Case> Campaign::cases_in_rounds() const {
    std::vector<Case> cases;
    std::uint32_t round = 0;
    const auto is_enough = [&] {
        return settings_.family == Family::all && round >= settings_.schedules
                   ? cases.size() >= settings_.count
                   : round >= settings_.schedules;
    };
    while (!is_enough()) {
        const CaseSource source = {.family = settings_.family,
                                   .sound = sound_,
                                   .seed = settings_.seed + round,
                                   .aim_past = settings_.aim_past};
        const std::uint32_t first = settings_.family == Family::all ? settings_.seed : 1;
        const std::size_t before = cases.size();
        for (Case& one : cases_of_family(source)) {
            one.schedule.seed = round == 0 ? 0 : first + round - 1;
            if (one.schedule.seed != 0 && !one.sets_clock() &&
                one.injection.belongs_to(Family::late)) {
                one.draw = Draw::moment;
            }
            if (one.text().find(settings_.only) != std::string::npos) {
                cases.push_back(std::move(one));
            }
        }
        ++round;
        if (cases.size() == before) {
            break;
        }
    }
    if (settings_.family == Family::all) {
        std::printf("%zu cases, drawn with the seeds %u to %u; order of threads: the plain one%s\n",
                    settings_.count > 0 ? std::min(settings_.count, cases.size()) : cases.size(),
                    settings_.seed, settings_.seed + round - 1,
                    round > 1 ? (", and those of the seeds " + std::to_string(settings_.seed) +
                                 " to " + std::to_string(settings_.seed + round - 2))
                                    .c_str()
                              : "");
    }
    return cases;
}

std::vector<Case> Campaign::chosen_cases() const {
    std::vector<Case> cases;
    if (settings_.count > 0 || settings_.kills == 0) {
        cases = cases_in_rounds();
    }
    choose(cases, settings_.count, settings_.seed);
    const CaseSource source = {.sound = sound_, .seed = settings_.seed};
    const std::vector<Case> kills = kill_cases(source, settings_.kills);
    cases.insert(cases.end(), kills.begin(), kills.end());
    return slice_of(std::move(cases));
}

// All cases of a target belong to one slice, or nearly all, so that the slice can judge them.
std::vector<Case> Campaign::slice_of(std::vector<Case> cases) const {
    std::stable_sort(cases.begin(), cases.end(),
                     [](const Case& a, const Case& b) { return a.target() < b.target(); });
    std::map<std::string, std::size_t> slice_of_target;
    for (std::size_t i = 0; i < cases.size(); ++i) {
        slice_of_target.try_emplace(cases[i].target(), i * settings_.slices / cases.size());
    }
    std::erase_if(cases, [&](const Case& one) {
        return slice_of_target.at(one.target()) != settings_.slice;
    });
    return cases;
}

void Campaign::run_all(const std::vector<Case>& cases, unsigned int jobs, bool is_last_chance) {
    std::mutex mutex;
    std::atomic<bool> is_over = false;
    in_parallel(cases.size(), jobs, [&](std::size_t i) {
        if (is_over) {
            return;
        }
        Case one = complete(cases[i]);
        Outcome outcome = try_case(one);
        if (settings_.shrink && !outcome.violations.empty()) {
            one = shrink(one);
            outcome = try_case(one);
        }
        const std::lock_guard lock(mutex);
        if (is_over) {
            return;
        }
        take(one, outcome, is_last_chance);
        is_over = settings_.until_found && !outcome.violations.empty();
    });
}

Case Campaign::complete(Case one) const {
    switch (const Draw draw = std::exchange(one.draw, Draw::none)) {
        case Draw::none:
            return one;
        case Draw::moment:
            return with_moment(std::move(one));
        default:
            return with_second_fault(std::move(one), draw);
    }
}

/// The answer comes just behind the next command of a run in which it does not come.
Case Campaign::with_moment(Case one) const {
    constexpr int never = 60000;
    Injection& late = one.injection;
    Injection unanswered = late;
    unanswered.milliseconds = never;
    Workplace place(settings_.program, schedule_of(one), starter());
    const Run run = place.run(late.command, late.goes_on, unanswered.fault(), late.has_debug_log(),
                              bound_of(one) + until_hang);
    if (const auto gap = gap_behind_fault(run.record, late.device)) {
        late.milliseconds = *gap + static_cast<int>(one.schedule.seed % 2);
    }
    return one;
}

/// A second fault among the transfers that follow the first one.
Case Campaign::with_second_fault(Case one, Draw draw) const {
    std::mt19937 random(one.draw_seed);
    Workplace place(settings_.program, schedule_of(one), starter());
    const milliseconds longest = bound_of(one) + until_hang;
    const Injection& first = one.injection;
    const Run run =
        place.run("update", first.goes_on, first.fault(), first.has_debug_log(), longest);
    one.second = draw_second(run.record, first, draw, random);
    if (!one.second && draw == Draw::any_fault) {
        place.pass(return_time);
        const Run next = place.run("update", false, "", false, longest);
        one.second = draw_in_next_run(next.record, first, random);
        one.second_in_next_run = one.second.has_value();
    }
    return one;
}

Campaign::Outcome Campaign::try_case(const Case& one) const {
    try {
        return run_case(one);
    } catch (const std::exception& failure) {
        Outcome outcome;
        outcome.violations.emplace_back(failure.what());
        return outcome;
    }
}

// One of two faults, or the plain order of threads: the first simpler case that is a violation,
// too, is shrunk further.
Case Campaign::shrink(const Case& one) const {
    std::vector<Case> simpler;
    if (one.second) {
        for (const Injection& alone : {one.injection, *one.second}) {
            simpler.push_back(one);
            simpler.back().injection = alone;
            simpler.back().second.reset();
            simpler.back().second_in_next_run = false;
        }
    }
    if (one.schedule.seed != 0) {
        simpler.push_back(one);
        simpler.back().schedule.seed = 0;
    }
    for (const Case& candidate : simpler) {
        if (!try_case(candidate).violations.empty()) {
            return shrink(candidate);
        }
    }
    return one;
}

Campaign::Outcome Campaign::run_case(const Case& one) const {
    Workplace place(settings_.program, schedule_of(one), starter());
    Outcome outcome;
    if (one.is_kill()) {
        outcome = run_kill(one, place);
    } else if (one.second) {
        outcome = run_pair(one, place);
    } else if (one.sets_clock()) {
        outcome = run_with_set_clock(one, place);
    } else if (one.injection.belongs_to(Family::kills) ||
               one.injection.belongs_to(Family::signals)) {
        outcome = run_signalled(one, place);
    } else {
        outcome = run_injection(one, place);
    }
    if (!settings_.repeat.empty() && !outcome.violations.empty()) {
        const std::string kept = "fault-campaign";
        std::filesystem::remove_all(kept);
        std::filesystem::copy(place.path(), kept, std::filesystem::copy_options::recursive);
        std::printf("The files are in ./%s\n", kept.c_str());
    }
    return outcome;
}

milliseconds Campaign::bound_of(const Case& one) const {
    const milliseconds sound = longest_sound_run(sound_, one.injection.command);
    // Where threads are held up a run takes longer: by how often they wait, not by how long, and
    // even a short command by one of the long hold-ups.
    const milliseconds held_up =
        one.schedule.seed != 0 ? longest_sound_run(sound_, "update") : milliseconds(0);
    return sound + wait_of(one.injection) + grace + held_up;
}

Campaign::Outcome Campaign::run_injection(const Case& one, Workplace& place) const {
    const Injection& injection = one.injection;
    const milliseconds bound = bound_of(one);
    Outcome outcome;
    const Run run = place.run(injection.command, injection.goes_on, injection.fault(),
                              injection.has_debug_log(), bound + until_hang);
    outcome.count(run);
    outcome.violations = judge(run, place, injection, sound_, outcome.has_struck);
    const bool is_over = !run.end.killed && run.end.duration > bound;
    recover(place, outcome);
    if (is_over) {
        outcome.is_late = outcome.violations.empty();
        outcome.violations.push_back("took " + std::to_string(run.end.duration.count()) +
                                     " ms, more than " + std::to_string(bound.count()));
    }
    return outcome;
}

Campaign::Outcome Campaign::run_kill(const Case& one, Workplace& place) const {
    Outcome outcome;
    const Run run = place.run("update", one.injection.goes_on, "", false,
                              milliseconds(std::max(one.kill_after, 1)));
    outcome.count(run);
    outcome.has_struck = run.end.killed;
    outcome.violations = judge_killed(place);
    recover(place, outcome);
    return outcome;
}

Campaign::Outcome Campaign::run_signalled(const Case& one, Workplace& place) const {
    const Injection& injection = one.injection;
    Outcome outcome;
    const Run run = place.run(injection.command, injection.goes_on, injection.fault(),
                              injection.has_debug_log(), bound_of(one) + until_hang);
    outcome.count(run);
    if (injection.kind->belongs_to == Family::kills) {
        outcome.has_struck = run.end.signal == SIGKILL;
        outcome.violations = judge_killed(place);
    } else {
        outcome.has_struck = find_strike(run.record, injection).has_struck;
        outcome.violations = judge_signalled(run, place, outcome.has_struck);
    }
    recover(place, outcome);
    return outcome;
}

Campaign::Outcome Campaign::run_pair(const Case& one, Workplace& place) const {
    Outcome outcome;
    const Injection& first = one.injection;
    const milliseconds bound = bound_of(one) + wait_of(*one.second);
    const auto judge_run = [&](const Run& run) {
        outcome.count(run);
        outcome.strikes += run.record.of_kind(first.device, "fault").size();
        append(outcome.violations, judge_pair(run, place, first, *one.second,
                                              settings_.virtual_time && one.schedule.seed == 0));
        if (!run.end.killed && run.end.duration > bound) {
            outcome.violations.push_back("took " + std::to_string(run.end.duration.count()) +
                                         " ms");
        }
    };
    const std::string same_run = one.second_in_next_run ? "" : one.second->fault();
    judge_run(place.run(first.command, first.goes_on, first.fault() + same_run,
                        first.has_debug_log(), bound + until_hang));
    if (one.second_in_next_run) {
        place.pass(return_time);
        judge_run(place.run("update", false, one.second->fault(), false, bound + until_hang));
    }
    outcome.has_struck = outcome.strikes == 2;
    recover(place, outcome);
    return outcome;
}

Campaign::Outcome Campaign::run_with_set_clock(const Case& one, Workplace& place) const {
    Outcome outcome;
    const milliseconds bound = 2 * longest_sound_run(sound_, "update") + grace;
    const Run run = place.run("update", false, "", one.schedule.seed % 2 == 1, bound + until_hang);
    outcome.count(run);
    outcome.violations = judge_sound(run, place, "update");
    if (run.end.duration > bound) {
        outcome.violations.push_back("took " + std::to_string(run.end.duration.count()) + " ms");
    }
    return outcome;
}

void Campaign::recover(Workplace& place, Outcome& outcome) const {
    place.pass(return_time);
    const Prospect prospect = foresee(place);
    const milliseconds longest = longest_sound_run(sound_, "update") + grace + until_hang;
    const auto take_violations = [&outcome](const char* step, const Violations& violations) {
        for (const std::string& violation : violations) {
            outcome.violations.push_back(std::string(step) + violation);
        }
    };
    const Run plain = place.run("update", false, "", false, longest);
    outcome.count(plain);
    take_violations("recovery: ", judge_recovery(plain, place, prospect));
    if (prospect.needs_force) {
        place.pass(return_time);
        const Run forced = place.run("force", false, "", false, longest);
        outcome.count(forced);
        take_violations("recovery by force: ", judge_ending(forced));
        take_violations("recovery by force: ", judge_restored(place));
    }
}

void Campaign::take(const Case& one, const Outcome& outcome, bool is_last_chance) {
    Tally& tally = tallies_[one.family()];
    tally.runs += outcome.runs;
    duration_ += outcome.duration;
    // In virtual time it would be as late again.
    if (outcome.is_late && !is_last_chance && !settings_.virtual_time) {
        late_cases_.push_back(one);
        return;
    }
    ++tally.injections;
    tally.missed += outcome.has_struck ? 0 : 1;
    Strikes& strikes = strikes_[one.target()];
    ++strikes.injections;
    strikes.missed += outcome.has_struck ? 0 : 1;
    if (!outcome.violations.empty()) {
        ++tally.violations;
        report(one, outcome);
    }
}

void Campaign::report(const Case& one, const Outcome& outcome) const {
    for (const std::string& violation : outcome.violations) {
        std::printf("VIOLATION %s: %s\n", one.text().c_str(), violation.c_str());
    }
    std::string command = FAULT_CAMPAIGN;
    command += settings_.virtual_time ? " --virtual" : "";
    command += settings_.program != ZELFWUPDATE ? " --program '" + settings_.program + "'" : "";
    std::printf("  repeat: %s --repeat '%s'\n", command.c_str(), one.text().c_str());
    std::fflush(stdout);
}

int Campaign::count() const {
    return std::accumulate(tallies_.begin(), tallies_.end(), 0,
                           [](int sum, const auto& row) { return sum + row.second.injections; });
}

void Campaign::print_summary() const {
    std::printf("%-20s %10s %6s %6s %10s\n", "fault", "injections", "runs", "missed", "violations");
    Tally sum;
    for (const auto& [name, tally] : tallies_) {
        std::printf("%-20s %10d %6d %6d %10d\n", name.c_str(), tally.injections, tally.runs,
                    tally.missed, tally.violations);
        sum.injections += tally.injections;
        sum.runs += tally.runs;
        sum.missed += tally.missed;
        sum.violations += tally.violations;
    }
    std::printf("%-20s %10d %6d %6d %10d\n", "all", sum.injections, sum.runs, sum.missed,
                sum.violations);
    std::printf("%.3f seconds in the time of the runs themselves\n",
                static_cast<double>(duration_.count()) / 1000);
    if (late_count_ > 0) {
        std::printf("%d runs took longer than their bound among the others: repeated among few\n",
                    late_count_);
    }
}
