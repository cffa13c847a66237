#include "zelfwtrace/report/timeline.h"

#include "zelfwtrace/escape.h"
#include "zelfwtrace/explanation_words.h"

#include <algorithm>
#include <limits>
#include <set>

namespace {

constexpr int most_ticks = 6;
/// Shorter phases would not be seen.
constexpr double shortest_share = 0.003;

/// The most devices of the product that a search met.
int devices_of(const Run& run, unsigned int product) {
    int most = 0;
    for (const auto& search : run.searches) {
        const auto found = search.find(product);
        most = std::max(most, found == search.end() ? 0 : found->second);
    }
    return most;
}

std::set<std::string> serials_of(const Run& run, const RunDigest& digest, unsigned int product) {
    std::set<std::string> serials;
    for (const ListedLevel& level : digest.levels) {
        if (level.product == printed("%04x", product)) {
            serials.insert(level.serial);
        }
    }
    for (const Attempt& attempt : run.attempts) {
        if (attempt.product == product && attempt.serial) {
            serials.insert(one_line(*attempt.serial));
        }
    }
    return serials;
}

/// A query names no serial number: with one device of the product it is that one's.
Lanes::Lane lane_of(const Run& run, const RunDigest& digest, const Attempt& attempt) {
    Lanes::Lane lane = {.product = attempt.product,
                        .serial = one_line(attempt.serial.value_or(""))};
    if (attempt.kind != Attempt::Kind::query) {
        return lane;
    }
    const std::set<std::string> serials = serials_of(run, digest, attempt.product);
    if (devices_of(run, attempt.product) > 1 || serials.size() > 1) {
        lane.is_all = true;
    } else if (!serials.empty()) {
        lane.serial = *serials.begin();
    }
    return lane;
}

bool is_same(const Lanes::Lane& one, const Lanes::Lane& other) {
    return one.product == other.product && one.serial == other.serial && one.is_all == other.is_all;
}

std::string span_words(const Phase& phase) {
    return printed("%s, %.3f to %.3f s (", phase_name(phase.kind), seconds(phase.begin),
                   seconds(phase.end)) +
           duration_words(phase.end - phase.begin) + ")";
}

PageJson block_of(const Phase& phase, double length) {
    const double shown = std::max(phase.end - phase.begin, length * shortest_share);
    return {{"kind", phase_name(phase.kind)},
            {"x", percent(std::min(phase.begin, length - shown), length)},
            {"width", percent(shown, length)},
            {"title", span_words(phase)}};
}

PageJson row_of(const Lanes::Lane& lane, const Phase& phase) {
    return {{"device", printed("%04x", lane.product)},
            {"serial", lane.serial},
            {"phase", phase_name(phase.kind)},
            {"begin", printed("%.3f", seconds(phase.begin))},
            {"length", printed("%.3f", seconds(phase.end - phase.begin))}};
}

/// Of the phases that occur, for the legend.
PageJson kinds_of(const RunDigest& digest) {
    std::set<Phase::Kind> kinds;
    for (const Phase& phase : digest.phases) {
        kinds.insert(phase.kind);
    }
    PageJson json = PageJson::array();
    for (const Phase::Kind kind : kinds) {
        json.push_back({{"kind", phase_name(kind)}});
    }
    return json;
}

PageJson mark_of(const Run& run, std::size_t attempt, const Explanation& explanation,
                 const std::string& run_anchor) {
    const double at = explanation.evidence.empty() ? run.attempts[attempt].end
                                                   : explanation.evidence.front().clock;
    return {{"x", percent(at, run.length)},
            {"href", "#" + failure_anchor(run_anchor, attempt)},
            {"title", std::string(outcome_name(explanation.outcome)) + " at " +
                          printed("%.3f s: ", seconds(at)) + explanation.cause->words},
            {"is_failure",
             explanation.outcome == Outcome::failed || explanation.outcome == Outcome::unfinished}};
}

/// When each lane's device was first reset; later than all when it was not.
std::vector<double> first_resets(const RunDigest& digest, const Lanes& lanes) {
    std::vector<double> clocks(lanes.lanes.size(), std::numeric_limits<double>::infinity());
    for (const Phase& phase : digest.phases) {
        if (phase.kind == Phase::Kind::reset && phase.attempt) {
            double& clock = clocks[lanes.of_attempt[*phase.attempt]];
            clock = std::min(clock, phase.begin);
        }
    }
    return clocks;
}

void add_phases(const Run& run, const RunDigest& digest, const Lanes& lanes, PageJson& json) {
    const std::vector<double> resets = first_resets(digest, lanes);
    for (const Phase& phase : digest.phases) {
        for (std::size_t lane = 0; lane < lanes.lanes.size(); ++lane) {
            const bool is_in_lane = phase.attempt ? lanes.of_attempt[*phase.attempt] == lane
                                                  : resets[lane] <= phase.begin;
            if (is_in_lane) {
                json["lanes"][lane]["blocks"].push_back(block_of(phase, run.length));
                json["rows"].push_back(row_of(lanes.lanes[lane], phase));
            }
        }
    }
}

PageJson ticks_of(double length, double step) {
    PageJson ticks = PageJson::array();
    const int last = static_cast<int>(length / step);
    for (int i = 0; i <= last; ++i) {
        const double at = i * step;
        ticks.push_back(
            {{"x", percent(at, length)},
             {"text", step < 1000 ? printed("%.0f ms", at) : printed("%.0f s", seconds(at))},
             {"is_first", i == 0},
             {"is_last", i > 0 && at > length * 0.9}});
    }
    return ticks;
}

}  // namespace

std::string failure_anchor(const std::string& run_anchor, std::size_t attempt) {
    return run_anchor + "-failure" + std::to_string(attempt + 1);
}

Lanes lanes_of(const Run& run, const RunDigest& digest) {
    Lanes lanes;
    for (const Attempt& attempt : run.attempts) {
        const Lanes::Lane lane = lane_of(run, digest, attempt);
        const auto found =
            std::find_if(lanes.lanes.begin(), lanes.lanes.end(),
                         [&lane](const Lanes::Lane& one) { return is_same(one, lane); });
        lanes.of_attempt.push_back(static_cast<std::size_t>(found - lanes.lanes.begin()));
        if (found == lanes.lanes.end()) {
            lanes.lanes.push_back(lane);
        }
    }
    return lanes;
}

PageJson timeline_of(const Run& run, const RunDigest& digest,
                     const std::vector<Explanation>& explanations, const std::string& run_anchor) {
    const Lanes lanes = lanes_of(run, digest);
    if (lanes.lanes.empty() || run.length <= 0) {
        return {};
    }
    const double step = round_step(run.length, most_ticks);
    PageJson json = {{"ticks", ticks_of(run.length, step)}, {"step", percent(step, run.length)},
                     {"kinds", kinds_of(digest)},           {"has_marks", false},
                     {"lanes", PageJson::array()},          {"rows", PageJson::array()}};
    for (const Lanes::Lane& lane : lanes.lanes) {
        PageJson one = {{"device", printed("%04x", lane.product)},
                        {"serial", lane.is_all ? "all, lists" : lane.serial},
                        {"blocks", PageJson::array()},
                        {"marks", PageJson::array()}};
        json["lanes"].push_back(std::move(one));
    }
    add_phases(run, digest, lanes, json);
    for (std::size_t attempt = 0; attempt < run.attempts.size(); ++attempt) {
        if (explanations[attempt].cause != nullptr) {
            json["has_marks"] = true;
            json["lanes"][lanes.of_attempt[attempt]]["marks"].push_back(
                mark_of(run, attempt, explanations[attempt], run_anchor));
        }
    }
    return json;
}
