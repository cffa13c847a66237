#include "zelfwtrace/report/fleet_page.h"

#include "zelfwtrace/escape.h"
#include "zelfwtrace/explanation_words.h"
#include "zelfwtrace/report/page_template.h"
#include "zelfwtrace/report/page_words.h"

#include <algorithm>
#include <string_view>

namespace {

/// Of a row; the till's own page has all.
constexpr std::size_t most_shown_levels = 24;

struct StateLook {
    TillState state;
    const char* style;  ///< in the style sheet
    const char* tone;
    const char* sign;
};
constexpr StateLook looks[till_states] = {
    {TillState::failed, "failed", "bad", "\u2715"},
    {TillState::unreachable, "unreachable", "doubt", "?"},
    {TillState::held_back, "held-back", "doubt", "!"},
    {TillState::not_begun, "not-begun", "quiet", "\u2013"},
    {TillState::updated, "updated", "well", "\u2713"},
    {TillState::current, "current", "quiet", "="},
};

const StateLook& look_of(TillState state) {
    return *std::find_if(std::begin(looks), std::end(looks),
                         [state](const StateLook& look) { return look.state == state; });
}

std::size_t count_of(const std::vector<FleetTill>& tills, TillState state) {
    return static_cast<std::size_t>(
        std::count_if(tills.begin(), tills.end(),
                      [state](const FleetTill& till) { return till.listed.state == state; }));
}

/// Whatever the list says, the link stays a path below the page's directory or beside it.
std::string relative_link(const std::string& path) {
    constexpr std::string_view plain =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~/";
    std::string link = path.empty() ? "" : "./";
    for (const char c : path) {
        link += plain.find(c) != std::string_view::npos
                    ? std::string(1, c)
                    : printed("%%%02X", static_cast<unsigned char>(c));
    }
    return link;
}

std::vector<std::string> cause_texts(const FleetTill& till) {
    std::vector<std::string> texts;
    if (!till.listed.reason.empty()) {
        texts.push_back(one_line(till.listed.reason));
    }
    if (till.listed.state == TillState::failed) {
        texts.insert(texts.end(), till.causes.begin(), till.causes.end());
    }
    if (!till.fault.empty()) {
        texts.push_back("Trace: " + one_line(till.fault));
    }
    return texts;
}

PageJson level_model(const LevelChange& level) {
    return {{"device", level.device},  {"component", level.component}, {"serial", level.serial},
            {"before", level.before},  {"after", level.after},         {"is_bad", level.is_bad},
            {"outcome", level.outcome}};
}

PageJson till_model(const FleetTill& till) {
    const StateLook& look = look_of(till.listed.state);
    PageJson json = {{"name", one_line(till.listed.name)},
                     {"href", relative_link(till.listed.report)},
                     {"state", till_state_name(look.state)},
                     {"tone", look.tone},
                     {"sign", look.sign},
                     {"took", till.has_trace ? duration_words(till.length) : ""},
                     {"levels", PageJson::array()},
                     {"more", ""},
                     {"causes", PageJson::array()}};
    for (const LevelChange& level : till.levels) {
        if (json["levels"].size() < most_shown_levels) {
            json["levels"].push_back(level_model(level));
        }
    }
    if (till.levels.size() > most_shown_levels) {
        json["more"] = grouped(till.levels.size() - most_shown_levels);
    }
    for (const std::string& text : cause_texts(till)) {
        json["causes"].push_back({{"text", text}});
    }
    return json;
}

PageJson totals_model(const std::vector<FleetTill>& tills) {
    PageJson totals = PageJson::array();
    std::size_t before = 0;
    for (const StateLook& look : looks) {
        const std::size_t count = count_of(tills, look.state);
        if (count > 0) {
            totals.push_back(
                {{"name", till_state_name(look.state)},
                 {"state", look.style},
                 {"tone", look.tone},
                 {"sign", look.sign},
                 {"count", grouped(count)},
                 {"x", percent(static_cast<double>(before), static_cast<double>(tills.size()))},
                 {"width",
                  percent(static_cast<double>(count), static_cast<double>(tills.size()))}});
        }
        before += count;
    }
    return totals;
}

/// Those that need somebody come first, else in the list's order.
std::vector<const FleetTill*> in_order(const std::vector<FleetTill>& tills) {
    std::vector<const FleetTill*> order;
    order.reserve(tills.size());
    for (const FleetTill& till : tills) {
        order.push_back(&till);
    }
    std::stable_sort(order.begin(), order.end(), [](const FleetTill* one, const FleetTill* other) {
        return one->listed.state < other->listed.state;
    });
    return order;
}

std::string level_words(const LevelChange& level) {
    std::string words = level.device + "/" + level.component;
    words += level.serial.empty() ? "" : " (" + level.serial + ")";
    words += " " + level.before + (level.after.empty() ? "" : " -> " + level.after);
    return level.is_bad ? words + " " + level.outcome : words;
}

std::string joined(const std::vector<std::string>& texts) {
    std::string all;
    for (const std::string& text : texts) {
        all += (all.empty() ? "" : "; ") + text;
    }
    return all;
}

/// A spreadsheet takes a cell with one of these in front for a formula.
std::string csv_cell(const std::string& text) {
    const bool is_formula =
        !text.empty() && std::string_view("=+-@\t\r").find(text.front()) != std::string_view::npos;
    std::string cell = is_formula ? "'" : "";
    for (const char c : text) {
        cell += c == '"' ? "\"\"" : std::string(1, c);
    }
    return "\"" + cell + "\"";
}

std::string csv_line(const std::vector<std::string>& texts) {
    std::string line;
    for (const std::string& text : texts) {
        line += (line.empty() ? "" : ",") + csv_cell(text);
    }
    return line + "\r\n";
}

}  // namespace

std::string fleet_page(const std::vector<FleetTill>& tills, const std::string& json_file,
                       const std::string& csv_file) {
    PageJson model = {{"title", counted_words(tills.size(), "till")},
                      {"has_tills", !tills.empty()},
                      {"totals", totals_model(tills)},
                      {"tills", PageJson::array()},
                      {"json_file", file_name_of(json_file)},
                      {"json_link", relative_link(file_name_of(json_file))},
                      {"csv_file", file_name_of(csv_file)},
                      {"csv_link", relative_link(file_name_of(csv_file))}};
    for (const FleetTill* till : in_order(tills)) {
        model["tills"].push_back(till_model(*till));
    }
    return filled_page(PageKind::fleet, model);
}

std::string fleet_json(const std::vector<FleetTill>& tills) {
    PageJson json = {{"totals", {{"tills", tills.size()}}}, {"tills", PageJson::array()}};
    for (const StateLook& look : looks) {
        json["totals"][till_state_name(look.state)] = count_of(tills, look.state);
    }
    for (const FleetTill& till : tills) {
        PageJson one = {{"name", till.listed.name},
                        {"state", till_state_name(till.listed.state)},
                        {"reason", till.listed.reason},
                        {"report", till.listed.report},
                        {"duration_ms", till.has_trace ? PageJson(till.length) : PageJson()},
                        {"levels", PageJson::array()},
                        {"causes", till.causes}};
        for (const LevelChange& level : till.levels) {
            one["levels"].push_back({{"device", level.device},
                                     {"component", level.component},
                                     {"serial", level.serial},
                                     {"before", level.before},
                                     {"after", level.after},
                                     {"outcome", level.outcome}});
        }
        if (!till.fault.empty()) {
            one["trace_fault"] = till.fault;
        }
        json["tills"].push_back(std::move(one));
    }
    return json.dump(1, ' ', false, PageJson::error_handler_t::replace) + "\n";
}

std::string fleet_csv(const std::vector<FleetTill>& tills) {
    std::string csv = csv_line({"till", "state", "duration_s", "levels", "cause", "report"});
    for (const FleetTill& till : tills) {
        std::vector<std::string> levels;
        for (const LevelChange& level : till.levels) {
            levels.push_back(level_words(level));
        }
        csv += csv_line({one_line(till.listed.name), till_state_name(till.listed.state),
                         till.has_trace ? printed("%.3f", seconds(till.length)) : "",
                         joined(levels), joined(cause_texts(till)), one_line(till.listed.report)});
    }
    return csv;
}
