#include "model/bus_file/fault.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <utility>

namespace zelfsim {

namespace {

// Groups of actions that an event can take; bits.
constexpr unsigned at_transfer = 1;
constexpr unsigned at_answer = 2;  // a reading transfer's content
constexpr unsigned at_status = 4;
constexpr unsigned at_data = 8;
constexpr unsigned at_open = 16;
constexpr unsigned at_claim = 32;

struct EventName {
    FaultEvent event;
    std::string_view name;
    unsigned groups;
};

constexpr std::array event_words{
    EventName{FaultEvent::control, "control", at_transfer},
    EventName{FaultEvent::get_descriptor, "get-descriptor", at_transfer | at_answer},
    EventName{FaultEvent::string, "string", at_transfer | at_answer},
    EventName{FaultEvent::report_descriptor, "report-descriptor", at_transfer | at_answer},
    EventName{FaultEvent::set_report, "set-report", at_transfer},
    EventName{FaultEvent::get_feature, "get-feature", at_transfer | at_answer},
    EventName{FaultEvent::record_read, "record-read", at_transfer | at_answer},
    EventName{FaultEvent::interrupt, "interrupt", at_transfer | at_answer},
    EventName{FaultEvent::command, "command", at_transfer | at_status},
    EventName{FaultEvent::status_request, "status-request", at_transfer | at_status},
    EventName{FaultEvent::reset, "reset", at_transfer | at_status},
    EventName{FaultEvent::stop, "stop", at_transfer | at_status},
    EventName{FaultEvent::ec_level, "ec-level", at_transfer | at_status},
    EventName{FaultEvent::device_info, "device-info", at_transfer | at_status},
    EventName{FaultEvent::erase, "erase", at_transfer | at_status},
    EventName{FaultEvent::record, "record", at_transfer | at_status},
    EventName{FaultEvent::checksum, "checksum", at_transfer | at_status},
    EventName{FaultEvent::component_version, "component-version",
              at_transfer | at_status | at_data},
    EventName{FaultEvent::component_list, "component-list", at_transfer | at_status | at_data},
    EventName{FaultEvent::extended_list, "extended-list", at_transfer | at_status | at_data},
    EventName{FaultEvent::read_records, "read-records", at_transfer | at_status | at_data},
    EventName{FaultEvent::open, "open", at_open},
    EventName{FaultEvent::claim, "claim", at_claim},
    EventName{FaultEvent::detach, "detach", at_open},
};

struct ActionName {
    FaultAction action;
    std::string_view name;
    unsigned groups;
};

constexpr std::array actions{
    ActionName{FaultAction::unplug, "unplug", at_transfer | at_open | at_claim},
    ActionName{FaultAction::stall, "stall", at_transfer},
    ActionName{FaultAction::timeout, "timeout", at_transfer},
    ActionName{FaultAction::io_error, "io-error", at_transfer},
    ActionName{FaultAction::overflow, "overflow", at_transfer},
    ActionName{FaultAction::short_packet, "short", at_transfer},
    ActionName{FaultAction::empty, "empty", at_transfer},
    ActionName{FaultAction::crash, "crash", at_transfer | at_open | at_claim},
    ActionName{FaultAction::reject, "reject", at_status},
    ActionName{FaultAction::operation_error, "operation-error", at_status},
    ActionName{FaultAction::answer, "answer", at_status | at_answer},
    ActionName{FaultAction::late, "late", at_status},
    ActionName{FaultAction::no_answer, "no-answer", at_status},
    ActionName{FaultAction::unasked, "unasked", at_status},
    ActionName{FaultAction::data, "data", at_data},
    ActionName{FaultAction::refuse, "refuse", at_open},
    ActionName{FaultAction::busy, "busy", at_claim},
    ActionName{FaultAction::signal, "signal", at_transfer | at_open | at_claim},
};

constexpr std::array<std::pair<std::string_view, int>, 9> known_signals{{
    {"SIGHUP", SIGHUP},
    {"SIGINT", SIGINT},
    {"SIGQUIT", SIGQUIT},
    {"SIGKILL", SIGKILL},
    {"SIGUSR1", SIGUSR1},
    {"SIGUSR2", SIGUSR2},
    {"SIGPIPE", SIGPIPE},
    {"SIGALRM", SIGALRM},
    {"SIGTERM", SIGTERM},
}};

const EventName& row(FaultEvent event) {
    return *std::find_if(event_words.begin(), event_words.end(),
                         [&](const EventName& entry) { return entry.event == event; });
}

const ActionName& row(FaultAction action) {
    return *std::find_if(actions.begin(), actions.end(),
                         [&](const ActionName& entry) { return entry.action == action; });
}

void add_name(std::string& names, std::string_view name) {
    names += (names.empty() ? "\"" : ", \"") + std::string(name) + "\"";
}

}  // namespace

std::string FaultRule::key() const {
    std::string text(row(at).name);
    char part[16];
    if (byte) {
        std::snprintf(part, sizeof part, "=%02x", *byte);
        text += part;
    }
    if (component) {
        text += "@" + std::to_string(*component);
    }
    return text + "#" + std::to_string(number) + ":" + std::string(row(action).name);
}

std::optional<FaultEvent> fault_event(std::string_view name) {
    for (const EventName& entry : event_words) {
        if (entry.name == name) {
            return entry.event;
        }
    }
    return std::nullopt;
}

std::optional<FaultAction> fault_action(std::string_view name) {
    for (const ActionName& entry : actions) {
        if (entry.name == name) {
            return entry.action;
        }
    }
    return std::nullopt;
}

std::string fault_event_names() {
    std::string names;
    for (const EventName& entry : event_words) {
        add_name(names, entry.name);
    }
    return names;
}

std::string fault_action_names(FaultEvent event) {
    std::string names;
    for (const ActionName& entry : actions) {
        if (fits(event, entry.action)) {
            add_name(names, entry.name);
        }
    }
    return names;
}

std::string signal_names() {
    std::string names;
    for (const auto& [name, number] : known_signals) {
        add_name(names, name);
    }
    return names;
}

std::optional<int> signal_number(std::string_view name) {
    for (const auto& [known, number] : known_signals) {
        if (known == name) {
            return number;
        }
    }
    return std::nullopt;
}

bool fits(FaultEvent event, FaultAction action) {
    return (row(event).groups & row(action).groups) != 0;
}

bool hits_transfer(FaultAction action) {
    return (row(action).groups & at_transfer) != 0;
}

FaultSet::FaultSet(std::vector<FaultRule> rules, std::set<std::string>& fired) : fired_(fired) {
    for (FaultRule& rule : rules) {
        rules_.push_back({std::move(rule), 0});
    }
}

const FaultRule* FaultSet::strike(std::span<const FaultEvent> events, const FaultContext& context) {
    const FaultRule* struck = nullptr;
    for (Counted& counted : rules_) {
        const FaultRule& rule = counted.rule;
        if (std::find(events.begin(), events.end(), rule.at) == events.end() ||
            (rule.byte && rule.byte != context.byte) ||
            (rule.component && rule.component != context.component)) {
            continue;
        }
        ++counted.count;
        if (struck == nullptr && due(counted)) {
            struck = &rule;
        }
    }
    if (struck != nullptr && !struck->always) {
        fired_.insert(struck->key());
    }
    return struck;
}

bool FaultSet::due(const Counted& counted) const {
    if (counted.rule.always) {
        return counted.count >= counted.rule.number;
    }
    return counted.count == counted.rule.number && !fired_.contains(counted.rule.key());
}

void FaultSet::restart_record_count() {
    for (Counted& counted : rules_) {
        if (counted.rule.at == FaultEvent::record) {
            counted.count = 0;
        }
    }
}

}  // namespace zelfsim
