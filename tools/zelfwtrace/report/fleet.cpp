#include "zelfwtrace/report/fleet.h"

#include "zelfwtrace/escape.h"
#include "zelfwtrace/explanation.h"
#include "zelfwtrace/explanation_words.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <tuple>

namespace {

using Json = nlohmann::json;

constexpr std::size_t most_tills = 10'000;
constexpr std::size_t most_levels_of_a_till = 1000;
constexpr std::size_t most_causes = 8;
/// Digits and points of a level with its build: "01.02.03".
constexpr std::size_t whole_level = 8;

constexpr TillState all_states[till_states] = {TillState::failed,    TillState::unreachable,
                                               TillState::held_back, TillState::not_begun,
                                               TillState::updated,   TillState::current};

std::string text_of(const Json& till, const char* key, const std::string& where) {
    const auto found = till.find(key);
    if (found == till.end() || found->is_null()) {
        return "";
    }
    if (!found->is_string()) {
        throw std::runtime_error(where + ": '" + key + "' is no text");
    }
    return found->get<std::string>();
}

TillState state_of(const std::string& name, const std::string& where) {
    const auto* const found =
        std::find_if(std::begin(all_states), std::end(all_states),
                     [&name](TillState state) { return name == till_state_name(state); });
    if (found == std::end(all_states)) {
        throw std::runtime_error(where + ": '" + one_line(name) + "' is no state");
    }
    return *found;
}

ListedTill listed_till(const Json& json, const std::string& where) {
    if (!json.is_object()) {
        throw std::runtime_error(where + " is no object");
    }
    ListedTill till;
    till.name = text_of(json, "name", where);
    if (till.name.empty()) {
        throw std::runtime_error(where + " has no name");
    }
    till.state = state_of(text_of(json, "state", where), where);
    till.reason = text_of(json, "reason", where);
    till.trace = text_of(json, "trace", where);
    till.report = text_of(json, "report", where);
    return till;
}

using ComponentKey = std::tuple<std::string, std::string, std::string>;

struct ComponentStory {
    std::string first_listed, last_listed;
    std::string before, after, outcome;
    std::string cause;
    bool is_bad = false;
};
using ComponentStories = std::map<ComponentKey, ComponentStory>;

/// A list leaves out a build level of nothing, the line of an update does not.
std::string with_build(const std::string& level) {
    return level.size() + 3 == whole_level ? level + ".00" : level;
}

void take_lists(const RunDigest& digest, ComponentStories& stories) {
    for (const ListedLevel& level : digest.levels) {
        ComponentStory& story = stories[{level.product, level.component, level.serial}];
        story.last_listed = with_build(level.level);
        if (story.first_listed.empty()) {
            story.first_listed = story.last_listed;
        }
        if (!story.outcome.empty()) {
            story.after = story.last_listed;
        }
    }
}

void take_updates(const Run& run, ComponentStories& stories) {
    for (std::size_t i = 0; i < run.attempts.size(); ++i) {
        const Attempt& attempt = run.attempts[i];
        if (attempt.kind != Attempt::Kind::update || !attempt.component) {
            continue;
        }
        const Explanation explanation = explain_attempt(run, i);
        ComponentStory& story =
            stories[{printed("%04x", attempt.product), std::to_string(*attempt.component),
                     one_line(attempt.serial.value_or(""))}];
        if (story.before.empty()) {
            story.before = one_line(attempt.level_before);
        }
        story.is_bad = explanation.outcome > Outcome::disturbed;
        story.after = story.is_bad ? "" : one_line(attempt.level_after);
        story.outcome = outcome_name(explanation.outcome);
        story.cause = story.is_bad && explanation.cause != nullptr
                          ? subject(attempt) + ": " + explanation.cause->words
                          : "";
    }
}

void add_cause(FleetTill& till, const std::string& cause) {
    const bool is_new =
        std::find(till.causes.begin(), till.causes.end(), cause) == till.causes.end();
    if (!cause.empty() && is_new && till.causes.size() < most_causes) {
        till.causes.push_back(cause);
    }
}

/// What was updated; of a till on which nothing was, what is there.
void add_levels(const ComponentStories& stories, FleetTill& till) {
    const bool has_updates = std::any_of(stories.begin(), stories.end(), [](const auto& story) {
        return !story.second.outcome.empty();
    });
    for (const auto& [key, story] : stories) {
        if (has_updates == story.outcome.empty() || till.levels.size() >= most_levels_of_a_till) {
            continue;
        }
        const auto& [device, component, serial] = key;
        till.levels.push_back({.device = device,
                               .component = component,
                               .serial = serial,
                               .before = has_updates ? story.before : story.first_listed,
                               .after = has_updates ? story.after : "",
                               .outcome = story.outcome,
                               .is_bad = story.is_bad});
        add_cause(till, story.cause);
    }
}

}  // namespace

const char* till_state_name(TillState state) {
    switch (state) {
        case TillState::failed:
            return "failed";
        case TillState::unreachable:
            return "unreachable";
        case TillState::held_back:
            return "held back";
        case TillState::not_begun:
            return "not begun";
        case TillState::updated:
            return "updated";
        case TillState::current:
            break;
    }
    return "current";
}

std::vector<ListedTill> read_tills(const std::string& json) {
    const Json list = Json::parse(json, nullptr, false);
    if (!list.is_array()) {
        throw std::runtime_error(list.is_discarded() ? "this is no JSON" : "this is no array");
    }
    if (list.size() > most_tills) {
        throw std::runtime_error("more than " + std::to_string(most_tills) + " tills");
    }
    std::vector<ListedTill> tills;
    for (const Json& one : list) {
        tills.push_back(listed_till(one, "till " + std::to_string(tills.size() + 1)));
    }
    return tills;
}

void conclude(const RunDigests& runs, FleetTill& till) {
    ComponentStories stories;
    std::string of_last_run;
    for (std::size_t i = 0; i < runs.runs().size(); ++i) {
        const Run& run = runs.runs()[i];
        till.length += run.length;
        take_updates(run, stories);
        take_lists(runs.digests()[i], stories);
        const Explanation explanation = explain_run(run);
        of_last_run = explanation.cause != nullptr ? explanation.cause->words : "";
    }
    add_levels(stories, till);
    add_cause(till, of_last_run);
    till.has_trace = true;
}
