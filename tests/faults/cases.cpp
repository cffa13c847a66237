#include "cases.h"

#include "strike.h"
#include "timed_faults.h"

#include <algorithm>
#include <functional>
#include <map>

namespace {

constexpr char next_run_mark[] = "next/";

using Injections = std::function<std::vector<Injection>(const TransferRecord&, const Injection&)>;

/// What `make` gives for every command, device and way to go on after a failure.
std::vector<Case> cases_of_runs(const CaseSource& source, const Injections& make) {
    std::vector<Case> cases;
    for (const char* command : campaign_commands) {
        const TransferRecord& record = source.sound.at(command)[0].run.record;
        for (const char* device : {"printer", "scanner"}) {
            for (const bool goes_on : {false, true}) {
                if (goes_on && std::string(command) != "update") {
                    continue;
                }
                Injection place;
                place.command = command;
                place.goes_on = goes_on;
                place.device = device;
                for (Injection& one : make(record, place)) {
                    one.number += source.aim_past;
                    cases.push_back({.injection = std::move(one)});
                }
            }
        }
    }
    return cases;
}

std::vector<Case> untimed_cases(const CaseSource& source, Family family) {
    return cases_of_runs(source, [family](const TransferRecord& record, const Injection& place) {
        return all_injections(record, place.command, place.goes_on, place.device, family);
    });
}

/// The wall clock goes back and forth by hours and by seconds, every 50 ms of an update.
std::vector<Case> clock_cases(const CaseSource& source) {
    std::vector<Case> cases;
    const auto length = longest_sound_run(source.sound, "update").count();
    for (long moment = 0; moment < length; moment += 50) {
        for (const char* step : {"-7200", "7200", "-3", "3"}) {
            Case one;
            one.schedule.clock_step = std::string(step) + "@" + std::to_string(moment);
            cases.push_back(one);
        }
    }
    return cases;
}

/// Each fault of an update, and one that is drawn among those that can follow it.
std::vector<Case> pair_cases(const CaseSource& source) {
    std::mt19937 random(source.seed);
    std::vector<Case> cases = untimed_cases(source, Family::faults);
    std::erase_if(cases, [](const Case& one) { return one.injection.command != "update"; });
    for (Case& one : cases) {
        one.draw = Draw::any_fault;
        one.draw_seed = static_cast<std::uint32_t>(random());
    }
    return cases;
}

std::vector<Case> late_cases(const CaseSource& source) {
    std::mt19937 random(source.seed);
    return cases_of_runs(source, [&](const TransferRecord& record, const Injection& place) {
        return late_answers(record, place, random);
    });
}

/// Unasked reports alone, and in an update also before a message that the device refuses.
std::vector<Case> unasked_cases(const CaseSource& source) {
    std::mt19937 random(source.seed);
    std::vector<Case> cases =
        cases_of_runs(source, [&](const TransferRecord& record, const Injection& place) {
            return unasked_reports(record, place, random);
        });
    for (Case& one : cases) {
        const bool is_like_an_answer = std::string(one.injection.kind->name) == "unasked" ||
                                       std::string(one.injection.kind->name) == "unasked-first";
        if (one.injection.command == "update" && is_like_an_answer && random() % 2 == 0) {
            one.draw = Draw::refusal;
            one.draw_seed = static_cast<std::uint32_t>(random());
        }
    }
    return cases;
}

/// Of the next message, or of any.
std::optional<Injection> draw_refusal(std::vector<Injection> all, std::mt19937& random) {
    std::erase_if(all, [](const Injection& one) {
        return one.event != "command" || !one.kind->is_refusal();
    });
    if (all.empty()) {
        return std::nullopt;
    }
    const int next =
        std::min_element(all.begin(), all.end(), [](const Injection& a, const Injection& b) {
            return a.number < b.number;
        })->number;
    if (random() % 4 != 0) {
        std::erase_if(all, [next](const Injection& one) { return one.number != next; });
    }
    return all[random() % all.size()];
}

}  // namespace

std::string Case::text() const {
    std::string text;
    if (is_kill()) {
        text = std::string(injection.goes_on ? "kill-a/" : "kill/") + std::to_string(kill_after);
    } else if (sets_clock()) {
        text = "clock/" + schedule.clock_step;
    } else {
        text = injection.text();
        if (second) {
            text += std::string("+") + (second_in_next_run ? next_run_mark : "") + second->text();
        }
    }
    return schedule.seed == 0 ? text : text + "#" + std::to_string(schedule.seed);
}

std::string Case::target() const {
    if (is_kill() || sets_clock()) {
        return is_kill() ? "kill" : "clock";
    }
    if (draw == Draw::refusal || (second && injection.belongs_to(Family::unasked))) {
        return "unasked report and refusal";
    }
    return draw == Draw::any_fault || second ? "pairs" : injection.target();
}

std::string Case::family() const {
    if (is_kill() || sets_clock()) {
        return is_kill() ? "kill -9" : "clock set";
    }
    if (target() == "pairs") {
        return second_in_next_run ? "two faults, 2 runs" : "two faults";
    }
    return target() == "unasked report and refusal" ? "unasked, refused" : injection.family();
}

std::optional<Case> parse_case(const std::string& text) {
    Case one;
    const std::size_t seed_mark = text.find('#');
    const std::string name = text.substr(0, seed_mark);
    if (seed_mark != std::string::npos) {
        one.schedule.seed = static_cast<std::uint32_t>(std::stoul(text.substr(seed_mark + 1)));
    }
    const bool goes_on = name.starts_with("kill-a/");
    if (name.starts_with("clock/")) {
        one.schedule.clock_step = name.substr(6);
        return one;
    }
    if (name.starts_with("kill/") || goes_on) {
        one.kill_after = std::stoi(name.substr(goes_on ? 7 : 5));
        one.injection.goes_on = goes_on;
        return one;
    }
    const std::size_t plus = name.find('+');
    const auto injection = parse_injection(name.substr(0, plus));
    if (!injection) {
        return std::nullopt;
    }
    one.injection = *injection;
    if (plus != std::string::npos) {
        std::string second = name.substr(plus + 1);
        one.second_in_next_run = second.starts_with(next_run_mark);
        if (one.second_in_next_run) {
            second.erase(0, sizeof(next_run_mark) - 1);
        }
        one.second = parse_injection(second);
        return one.second ? std::optional(one) : std::nullopt;
    }
    return one;
}

std::vector<Case> cases_of_family(const CaseSource& source) {
    switch (source.family) {
        case Family::clock:
            return clock_cases(source);
        case Family::pairs:
            return pair_cases(source);
        case Family::late:
            return late_cases(source);
        case Family::unasked:
            return unasked_cases(source);
        case Family::all:
            break;
        default:
            return untimed_cases(source, source.family);
    }
    std::vector<Case> cases;
    for (const Family family : {Family::faults, Family::kills, Family::signals, Family::clock,
                                Family::pairs, Family::late, Family::unasked}) {
        CaseSource one = source;
        one.family = family;
        for (Case& made : cases_of_family(one)) {
            cases.push_back(std::move(made));
        }
    }
    return cases;
}

std::vector<Case> kill_cases(const CaseSource& source, std::size_t count) {
    std::vector<Case> cases;
    std::mt19937 random(source.seed);
    const auto longest = static_cast<int>(longest_sound_run(source.sound, "update").count());
    std::uniform_int_distribution<int> moments(0, longest);
    for (std::size_t i = 0; i < count; ++i) {
        Case one;
        one.kill_after = moments(random);
        one.injection.goes_on = i % 2 == 1;
        cases.push_back(one);
    }
    return cases;
}

std::optional<Injection> draw_second(const TransferRecord& record, const Injection& first,
                                     Draw draw, std::mt19937& random) {
    constexpr int nearest = 12;
    const Strike strike = find_strike(record, first);
    if (!strike.has_struck) {
        return std::nullopt;
    }
    std::vector<Injection> all = injections_behind(record, strike.fault_line, first);
    std::map<std::string, int> next;
    for (const Injection& one : all) {
        next.try_emplace(one.event, one.number);
    }
    if (draw == Draw::refusal) {
        return draw_refusal(all, random);
    }
    // Most soon after the first, some anywhere behind it.
    const bool is_near = random() % 4 != 0;
    std::erase_if(all, [&](const Injection& one) {
        return is_near && one.number >= next.at(one.event) + nearest;
    });
    return all.empty() ? std::nullopt : std::optional(all[random() % all.size()]);
}

std::optional<Injection> draw_in_next_run(const TransferRecord& record, const Injection& first,
                                          std::mt19937& random) {
    const auto all = all_injections(record, "update", false, first.device);
    return all.empty() ? std::nullopt : std::optional(all[random() % all.size()]);
}
