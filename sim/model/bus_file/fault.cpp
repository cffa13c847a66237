#include "model/bus_file/fault.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <utility>

namespace zelfsim {

namespace {

// Groups of actions that an event can take; bits.
constexpr unsigned kTransfer = 1;
constexpr unsigned kAnswer = 2;  // a reading transfer's content
constexpr unsigned kStatus = 4;
constexpr unsigned kData = 8;
constexpr unsigned kOpen = 16;
constexpr unsigned kClaim = 32;

struct EventName {
    FaultEvent event;
    std::string_view name;
    unsigned groups;
};

constexpr std::array kEvents{
    EventName{FaultEvent::control, "control", kTransfer},
    EventName{FaultEvent::get_descriptor, "get-descriptor", kTransfer | kAnswer},
    EventName{FaultEvent::string, "string", kTransfer | kAnswer},
    EventName{FaultEvent::report_descriptor, "report-descriptor", kTransfer | kAnswer},
    EventName{FaultEvent::set_report, "set-report", kTransfer},
    EventName{FaultEvent::get_feature, "get-feature", kTransfer | kAnswer},
    EventName{FaultEvent::record_read, "record-read", kTransfer | kAnswer},
    EventName{FaultEvent::interrupt, "interrupt", kTransfer | kAnswer},
    EventName{FaultEvent::command, "command", kTransfer | kStatus},
    EventName{FaultEvent::status_request, "status-request", kTransfer | kStatus},
    EventName{FaultEvent::reset, "reset", kTransfer | kStatus},
    EventName{FaultEvent::stop, "stop", kTransfer | kStatus},
    EventName{FaultEvent::ec_level, "ec-level", kTransfer | kStatus},
    EventName{FaultEvent::device_info, "device-info", kTransfer | kStatus},
    EventName{FaultEvent::erase, "erase", kTransfer | kStatus},
    EventName{FaultEvent::record, "record", kTransfer | kStatus},
    EventName{FaultEvent::checksum, "checksum", kTransfer | kStatus},
    EventName{FaultEvent::component_version, "component-version", kTransfer | kStatus | kData},
    EventName{FaultEvent::component_list, "component-list", kTransfer | kStatus | kData},
    EventName{FaultEvent::extended_list, "extended-list", kTransfer | kStatus | kData},
    EventName{FaultEvent::read_records, "read-records", kTransfer | kStatus | kData},
    EventName{FaultEvent::open, "open", kOpen},
    EventName{FaultEvent::claim, "claim", kClaim},
    EventName{FaultEvent::detach, "detach", kOpen},
};

struct ActionName {
    FaultAction action;
    std::string_view name;
    unsigned groups;
};

constexpr std::array kActions{
    ActionName{FaultAction::unplug, "unplug", kTransfer | kOpen | kClaim},
    ActionName{FaultAction::stall, "stall", kTransfer},
    ActionName{FaultAction::timeout, "timeout", kTransfer},
    ActionName{FaultAction::io_error, "io-error", kTransfer},
    ActionName{FaultAction::overflow, "overflow", kTransfer},
    ActionName{FaultAction::short_packet, "short", kTransfer},
    ActionName{FaultAction::empty, "empty", kTransfer},
    ActionName{FaultAction::crash, "crash", kTransfer | kOpen | kClaim},
    ActionName{FaultAction::reject, "reject", kStatus},
    ActionName{FaultAction::operation_error, "operation-error", kStatus},
    ActionName{FaultAction::answer, "answer", kStatus | kAnswer},
    ActionName{FaultAction::late, "late", kStatus},
    ActionName{FaultAction::no_answer, "no-answer", kStatus},
    ActionName{FaultAction::unasked, "unasked", kStatus},
    ActionName{FaultAction::data, "data", kData},
    ActionName{FaultAction::refuse, "refuse", kOpen},
    ActionName{FaultAction::busy, "busy", kClaim},
    ActionName{FaultAction::signal, "signal", kTransfer | kOpen | kClaim},
};

constexpr std::array<std::pair<std::string_view, int>, 9> kSignals{{
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
    return *std::find_if(kEvents.begin(), kEvents.end(),
                         [&](const EventName& entry) { return entry.event == event; });
}

const ActionName& row(FaultAction action) {
    return *std::find_if(kActions.begin(), kActions.end(),
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
    for (const EventName& entry : kEvents) {
        if (entry.name == name) {
            return entry.event;
        }
    }
    return std::nullopt;
}

std::optional<FaultAction> fault_action(std::string_view name) {
    for (const ActionName& entry : kActions) {
        if (entry.name == name) {
            return entry.action;
        }
    }
    return std::nullopt;
}

std::string fault_event_names() {
    std::string names;
    for (const EventName& entry : kEvents) {
        add_name(names, entry.name);
    }
    return names;
}

std::string fault_action_names(FaultEvent event) {
    std::string names;
    for (const ActionName& entry : kActions) {
        if (fits(event, entry.action)) {
            add_name(names, entry.name);
        }
    }
    return names;
}

std::string signal_names() {
    std::string names;
    for (const auto& [name, number] : kSignals) {
        add_name(names, name);
    }
    return names;
}

std::optional<int> signal_number(std::string_view name) {
    for (const auto& [known, number] : kSignals) {
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
    return (row(action).groups & kTransfer) != 0;
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
