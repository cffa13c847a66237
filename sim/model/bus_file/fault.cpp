#include "model/bus_file/fault.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <utility>

namespace zelfsim {

namespace {

// Groups of actions that an event can take; bits.
constexpr unsigned transfer = 1;
constexpr unsigned answer = 2;  // a reading transfer's content
constexpr unsigned status = 4;
constexpr unsigned data = 8;
constexpr unsigned open = 16;
constexpr unsigned claim = 32;

struct EventName {
    FaultEvent event;
    std::string_view name;
    unsigned groups;
};

constexpr std::array event_words{
    EventName{FaultEvent::control, "control", transfer},
    EventName{FaultEvent::get_descriptor, "get-descriptor", transfer | answer},
    EventName{FaultEvent::string, "string", transfer | answer},
    EventName{FaultEvent::report_descriptor, "report-descriptor", transfer | answer},
    EventName{FaultEvent::set_report, "set-report", transfer},
    EventName{FaultEvent::get_feature, "get-feature", transfer | answer},
    EventName{FaultEvent::record_read, "record-read", transfer | answer},
    EventName{FaultEvent::interrupt, "interrupt", transfer | answer},
    EventName{FaultEvent::command, "command", transfer | status},
    EventName{FaultEvent::status_request, "status-request", transfer | status},
    EventName{FaultEvent::reset, "reset", transfer | status},
    EventName{FaultEvent::stop, "stop", transfer | status},
    EventName{FaultEvent::ec_level, "ec-level", transfer | status},
    EventName{FaultEvent::device_info, "device-info", transfer | status},
    EventName{FaultEvent::erase, "erase", transfer | status},
    EventName{FaultEvent::record, "record", transfer | status},
    EventName{FaultEvent::checksum, "checksum", transfer | status},
    EventName{FaultEvent::component_version, "component-version", transfer | status | data},
    EventName{FaultEvent::component_list, "component-list", transfer | status | data},
    EventName{FaultEvent::extended_list, "extended-list", transfer | status | data},
    EventName{FaultEvent::read_records, "read-records", transfer | status | data},
    EventName{FaultEvent::open, "open", open},
    EventName{FaultEvent::claim, "claim", claim},
    EventName{FaultEvent::detach, "detach", open},
};

struct ActionName {
    FaultAction action;
    std::string_view name;
    unsigned groups;
};

constexpr std::array actions{
    ActionName{FaultAction::unplug, "unplug", transfer | open | claim},
    ActionName{FaultAction::stall, "stall", transfer},
    ActionName{FaultAction::timeout, "timeout", transfer},
    ActionName{FaultAction::io_error, "io-error", transfer},
    ActionName{FaultAction::overflow, "overflow", transfer},
    ActionName{FaultAction::short_packet, "short", transfer},
    ActionName{FaultAction::empty, "empty", transfer},
    ActionName{FaultAction::crash, "crash", transfer | open | claim},
    ActionName{FaultAction::reject, "reject", status},
    ActionName{FaultAction::operation_error, "operation-error", status},
    ActionName{FaultAction::answer, "answer", status | answer},
    ActionName{FaultAction::late, "late", status},
    ActionName{FaultAction::no_answer, "no-answer", status},
    ActionName{FaultAction::unasked, "unasked", status},
    ActionName{FaultAction::data, "data", data},
    ActionName{FaultAction::refuse, "refuse", open},
    ActionName{FaultAction::busy, "busy", claim},
    ActionName{FaultAction::signal, "signal", transfer | open | claim},
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
    return (row(action).groups & transfer) != 0;
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
