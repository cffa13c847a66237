#include "zelfwtrace/report/run_section.h"

#include "zelfwtrace/escape.h"
#include "zelfwtrace/explanation.h"
#include "zelfwtrace/explanation_words.h"
#include "zelfwtrace/report/answer_chart.h"
#include "zelfwtrace/report/conversation_rows.h"
#include "zelfwtrace/report/timeline.h"

#include <algorithm>
#include <set>

namespace {

constexpr std::size_t longest_command = 4000;

/// The outcome as word, mark and class: it is never told by a colour alone.
void add_outcome(PageJson& json, Outcome outcome) {
    json["outcome"] = outcome_name(outcome);
    const bool is_bad = outcome == Outcome::failed || outcome == Outcome::unfinished;
    json["tone"] = is_bad ? "bad" : outcome == Outcome::well ? "well" : "doubt";
    json["sign"] = is_bad ? "\u2715" : outcome == Outcome::well ? "\u2713" : "!";
}

std::vector<Explanation> explanations_of(const Run& run) {
    std::vector<Explanation> explanations;
    for (std::size_t i = 0; i < run.attempts.size(); ++i) {
        explanations.push_back(explain_attempt(run, i));
    }
    return explanations;
}

/// "7 of 7 components updated, 4 devices listed".
std::string result_words(const Run& run, const RunDigest& digest,
                         const std::vector<Explanation>& explanations) {
    std::size_t updates = 0, updated = 0, resets = 0, restarted = 0, reads = 0, read = 0;
    for (std::size_t i = 0; i < run.attempts.size(); ++i) {
        const bool went_well = explanations[i].outcome <= Outcome::disturbed;
        switch (run.attempts[i].kind) {
            case Attempt::Kind::update:
                ++updates, updated += went_well ? 1 : 0;
                break;
            case Attempt::Kind::reset:
                ++resets, restarted += went_well ? 1 : 0;
                break;
            case Attempt::Kind::read:
                ++reads, read += went_well ? 1 : 0;
                break;
            case Attempt::Kind::query:
                break;
        }
    }
    std::string words;
    const auto add = [&words](std::size_t done, std::size_t all, const char* thing,
                              const char* what) {
        if (all > 0) {
            words += (words.empty() ? "" : ", ") + grouped(done) + " of " +
                     counted_words(all, thing) + what;
        }
    };
    add(updated, updates, "component", " updated");
    add(restarted, resets, "device", " reset");
    add(read, reads, "component", " read");
    if (words.empty() && !digest.levels.empty()) {
        words = counted_words(digest.levels.size(), "component") + " listed";
    }
    if (!run.not_due.empty()) {
        words +=
            (words.empty() ? "" : ", ") + counted_words(run.not_due.size(), "file") + " not due";
    }
    return words.empty() ? "nothing was updated" : words;
}

std::string cause_in_a_line(const Run& run, const std::vector<Explanation>& explanations,
                            const Explanation& of_run) {
    if (of_run.cause != nullptr) {
        return of_run.cause->words;
    }
    for (std::size_t i = 0; i < explanations.size(); ++i) {
        if (explanations[i].outcome == of_run.outcome && explanations[i].cause != nullptr) {
            return subject(run.attempts[i]) + ": " + explanations[i].cause->words;
        }
    }
    return "";
}

PageJson lines_of(const std::vector<StoryLine>& lines) {
    PageJson all = PageJson::array();
    for (const StoryLine& line : lines) {
        all.push_back({{"place", place_in_trace(line)}, {"text", one_line(line.text)}});
    }
    return all;
}

PageJson reasons_of(const Explanation& explanation) {
    PageJson json;
    add_outcome(json, explanation.outcome);
    json["cause"] = explanation.cause->words;
    json["state"] = explanation.state;
    json["has_state"] = !explanation.state.empty();
    json["remedy"] = explanation.remedy;
    json["evidence"] = lines_of(explanation.evidence);
    json["has_evidence"] = !explanation.evidence.empty();
    json["consequences"] = lines_of(explanation.consequences);
    json["has_consequences"] = !explanation.consequences.empty();
    json["has_details"] = !explanation.state.empty() || !explanation.evidence.empty() ||
                          !explanation.consequences.empty();
    return json;
}

/// The paragraphs of everything that did not go well.
PageJson failures_of(const Run& run, const std::vector<Explanation>& explanations,
                     const Explanation& of_run, const std::string& anchor) {
    PageJson failures = PageJson::array();
    if (of_run.cause != nullptr) {
        PageJson json = reasons_of(of_run);
        json["anchor"] = anchor + "-failure";
        json["subject"] = "The run";
        json["is_component"] = false;
        failures.push_back(std::move(json));
    }
    for (std::size_t i = 0; i < explanations.size(); ++i) {
        if (explanations[i].cause == nullptr) {
            continue;
        }
        const Attempt& attempt = run.attempts[i];
        PageJson json = reasons_of(explanations[i]);
        json["anchor"] = failure_anchor(anchor, i);
        json["subject"] = subject(attempt);
        json["is_component"] = true;
        json["has_details"] = true;
        json["task"] = task(attempt);
        json["progress"] = progress_words(attempt);
        json["has_wire"] = attempt.last.has_value();
        json["wire"] = attempt.last ? wire_words(*attempt.last, explanations[i]) : "";
        failures.push_back(std::move(json));
    }
    return failures;
}

PageJson component_row(unsigned int product, const std::string& component,
                       const std::string& serial) {
    return {{"device", printed("%04x", product)},
            {"component", component},
            {"serial", one_line(serial)}};
}

/// What was done with each device and component, one row each.
PageJson attempt_rows(const Run& run, const std::vector<Explanation>& explanations,
                      const std::string& anchor) {
    PageJson rows = PageJson::array();
    for (std::size_t i = 0; i < run.attempts.size(); ++i) {
        const Attempt& attempt = run.attempts[i];
        if (!is_shown(attempt, explanations[i])) {
            continue;
        }
        PageJson row = component_row(attempt.product,
                                     attempt.component ? std::to_string(*attempt.component) : "",
                                     attempt.serial.value_or(""));
        add_outcome(row, explanations[i].outcome);
        row["task"] = attempt.kind == Attempt::Kind::update ? "" : kind_name(attempt.kind);
        row["file"] = file_name_of(attempt.file);
        row["from"] = one_line(attempt.level_before);
        row["to"] = one_line(attempt.level_after);
        row["time"] = duration_words(attempt.end - attempt.begin.clock);
        const ImageProgress& image = attempt.image;
        row["bytes"] = image.records_sent > 0 ? grouped(image.next_offset) : "";
        const double pace = kilobytes_per_second(image);
        row["rate"] = pace > 0 ? printed("%.1f b/s", pace) : "";
        if (explanations[i].cause != nullptr) {
            row["href"] = "#" + failure_anchor(anchor, i);
        }
        rows.push_back(std::move(row));
    }
    return rows;
}

PageJson level_rows(const RunDigest& digest) {
    PageJson rows = PageJson::array();
    for (const ListedLevel& level : digest.levels) {
        rows.push_back({{"device", level.product},
                        {"component", level.component},
                        {"serial", level.serial},
                        {"type", level.type},
                        {"level", level.level}});
    }
    return rows;
}

PageJson charts_of(const Run& run, const RunDigest& digest, std::size_t dots) {
    PageJson charts = PageJson::array();
    for (const auto& [number, records] : digest.records) {
        if (records.empty()) {
            continue;
        }
        const Attempt& attempt = run.attempts[number];
        PageJson chart = answer_chart_of(records, dots);
        chart["subject"] = subject(attempt);
        chart["file"] = file_name_of(attempt.file);
        charts.push_back(std::move(chart));
    }
    return charts;
}

}  // namespace

PageJson run_head(const Run& run, const RunDigest& digest, zelf::TimeZone zone) {
    const std::vector<Explanation> explanations = explanations_of(run);
    const Explanation of_run = explain_run(run);
    PageJson json;
    add_outcome(json, of_run.outcome);
    json["when"] = zelf::time_text(run.time, zone);
    json["iso"] = zelf::iso_time_text(run.time);
    json["length"] = duration_words(run.length);
    const std::string command = one_line(run.command.substr(0, longest_command));
    json["command"] = run.has_command ? command : "not known";
    json["has_begin"] = run.has_begin;
    json["process"] = std::to_string(run.process);
    json["result"] = result_words(run, digest, explanations);
    json["cause_line"] = cause_in_a_line(run, explanations, of_run);
    return json;
}

PageJson run_section(const Run& run, const RunDigest& digest, zelf::TimeZone zone,
                     const std::string& anchor, const SectionLimits& limits) {
    const std::vector<Explanation> explanations = explanations_of(run);
    const Explanation of_run = explain_run(run);
    PageJson json = run_head(run, digest, zone);
    json["anchor"] = anchor;
    json["failures"] = failures_of(run, explanations, of_run, anchor);
    json["has_failures"] = !json["failures"].empty();
    json["attempts"] = attempt_rows(run, explanations, anchor);
    json["has_attempts"] = !json["attempts"].empty();
    json["levels"] = level_rows(digest);
    json["has_levels"] = !json["levels"].empty();
    json["not_due"] = lines_of(run.not_due);
    json["has_not_due"] = !run.not_due.empty();
    json["timeline"] = timeline_of(run, digest, explanations, anchor);
    json["charts"] = charts_of(run, digest, limits.dots);
    json["has_charts"] = !json["charts"].empty();
    json["conversation"] = conversation_rows(digest, limits.conversation_bytes);
    json["talk_lines"] = counted_words(json["conversation"].size(), "line");
    return json;
}
