#include "injection.h"

#include "support/bus_text.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string_view>

namespace {

// A status with the reject and the operation error bit, and one without either.
constexpr char bad_garbage[] = "bytes = \"ff fe ff fd ff ff fb ff ff ff ff 7f ff ff ff ff\"\n";
constexpr char good_garbage[] = "bytes = \"15 23 0a 99 03 00 ff ee 13 07 00 41 00 02 30 18\"\n";

// Reports that no message asked for. Their last bytes tell them from answers.
constexpr char unasked_success[] = "bytes = \"01 00 00 00 00 00 00 a5\"\n";
constexpr char unasked_level[] = "bytes = \"05 07 07 00 00 00 00 a5\"\n";
constexpr char unasked_reject[] = "bytes = \"80 00 00 00 00 00 00 a5\"\n";
constexpr char unasked_error[] = "bytes = \"40 00 00 00 00 00 00 a5\"\n";

constexpr std::array kinds = {
    FaultKind{"unplug", "unplug", "unplug", ""},
    FaultKind{"unplug-soon", "unplug", "unplug", "ms = 0.5\n"},
    FaultKind{"replug", "unplug", "unplug", "replug_ms = 200\n"},
    FaultKind{"stall", "stall", "stall", ""},
    FaultKind{"timeout", "time-out", "timeout", ""},
    FaultKind{"io-error", "I/O error", "io-error", ""},
    FaultKind{"overflow", "overflow", "overflow", ""},
    FaultKind{"short", "short packet", "short", ""},
    FaultKind{"empty", "empty packet", "empty", ""},
    FaultKind{"garbage", "garbage answer", "answer", bad_garbage},
    FaultKind{"plausible-garbage", "garbage answer", "answer", good_garbage},
    FaultKind{"reject", "reject", "reject", ""},
    FaultKind{"operation-error", "operation error", "operation-error", ""},
    FaultKind{"late", "late answer", "late", "ms = 150\n"},
    FaultKind{"too-late", "late answer", "late", "ms = 2600\n"},
    FaultKind{"no-answer", "no answer", "no-answer", ""},
    FaultKind{"busy", "claim busy", "busy", ""},
    FaultKind{"refuse", "refused", "refuse", ""},
    FaultKind{"kill", "kill -9 at transfer", "signal", "signal = \"SIGKILL\"\n", Family::kills},
    FaultKind{"term", "signal", "signal", "signal = \"SIGTERM\"\n", Family::signals},
    FaultKind{"interrupt", "signal", "signal", "signal = \"SIGINT\"\n", Family::signals},
    FaultKind{"meets-next", "meets next command", "late", "", Family::late, "ms"},
    FaultKind{"unasked", "unasked report", "unasked", unasked_success, Family::unasked, "ms"},
    FaultKind{"unasked-level", "unasked report", "unasked", unasked_level, Family::unasked, "ms"},
    FaultKind{"unasked-reject", "unasked report", "unasked", unasked_reject, Family::unasked, "ms"},
    FaultKind{"unasked-error", "unasked report", "unasked", unasked_error, Family::unasked, "ms"},
    FaultKind{"unasked-first", "unasked report", "unasked", unasked_success, Family::unasked,
              "answer_ms"},
    FaultKind{"hang-up", "signal", "signal", "signal = \"SIGHUP\"\n", Family::signals},
};

/// Names of kinds that an event can take.
struct EventKinds {
    std::string_view event;
    std::vector<const char*> kinds;
};

const std::vector<EventKinds>& event_kinds() {
    static const std::vector<EventKinds> table = {
        {"control",
         {"unplug", "unplug-soon", "replug", "stall", "timeout", "io-error", "overflow", "short",
          "empty", "kill", "term", "interrupt", "hang-up"}},
        {"get-descriptor", {"garbage", "plausible-garbage"}},
        {"get-feature", {"garbage", "plausible-garbage"}},
        {"interrupt",
         {"unplug", "replug", "stall", "timeout", "io-error", "overflow", "short", "empty",
          "garbage", "plausible-garbage", "kill", "term", "interrupt", "hang-up"}},
        {"command",
         {"reject", "operation-error", "garbage", "plausible-garbage", "late", "too-late",
          "no-answer", "meets-next", "unasked", "unasked-level", "unasked-reject", "unasked-error",
          "unasked-first"}},
        {"open", {"refuse", "unplug"}},
        {"claim", {"busy", "unplug"}},
        {"detach", {"refuse", "unplug"}},
    };
    return table;
}

/// Whether the transfer reached the device, and so counts as an event.
bool reached_device(const Transfer& transfer) {
    constexpr int no_device = -4;
    constexpr int held_elsewhere = -1;
    return transfer.result != no_device && transfer.result != held_elsewhere;
}

int count_control(const std::vector<Transfer>& controls, const std::vector<std::string>& setups) {
    return static_cast<int>(
        std::count_if(controls.begin(), controls.end(), [&](const Transfer& one) {
            return reached_device(one) &&
                   std::any_of(setups.begin(), setups.end(), [&](const std::string& setup) {
                       return one.setup.starts_with(setup);
                   });
        }));
}

/// Claims of an interface that is not held yet: the others never reach the device.
int count_claims(const TransferRecord& record, const std::string& device) {
    int count = 0;
    bool is_held = false;
    for (const Transfer& one : record.all()) {
        if (one.device != device) {
            continue;
        }
        if (one.kind == "open" || one.kind == "release" || one.kind == "close") {
            is_held = false;
        } else if (one.kind == "claim" && !is_held && reached_device(one)) {
            ++count;
            is_held = one.result == 0;
        }
    }
    return count;
}

int count_events(const TransferRecord& record, const std::string& device, std::string_view event) {
    const auto controls = record.of_kind(device, "control");
    if (event == "control") {
        return count_control(controls, {""});
    }
    if (event == "get-descriptor") {
        return count_control(controls, {"80 06 ", "81 06 "});
    }
    if (event == "get-feature") {
        return count_control(controls, {"a1 01 03"});
    }
    if (event == "command") {
        return count_control(controls, {"21 09 02"});
    }
    if (event == "claim") {
        return count_claims(record, device);
    }
    const auto transfers = record.of_kind(device, std::string(event));
    return static_cast<int>(
        std::count_if(transfers.begin(), transfers.end(), [&](const Transfer& one) {
            return event == "interrupt" ? one.result == 0 : reached_device(one);
        }));
}

bool fits(std::string_view event, const FaultKind& kind) {
    const auto& table = event_kinds();
    const auto row = std::find_if(table.begin(), table.end(),
                                  [&](const EventKinds& one) { return one.event == event; });
    return row != table.end() &&
           std::any_of(row->kinds.begin(), row->kinds.end(),
                       [&](std::string_view name) { return name == kind.name; });
}

}  // namespace

const FaultKind* find_fault_kind(const std::string& name) {
    const auto* const found = std::find_if(
        kinds.begin(), kinds.end(), [&](const FaultKind& kind) { return name == kind.name; });
    return found == kinds.end() ? nullptr : found;
}

bool FaultKind::is_refusal() const {
    return std::string_view(action) == "reject" || std::string_view(action) == "operation-error";
}

std::string Injection::text() const {
    return command + (goes_on ? "-a/" : "/") + device + "/" + event + "/" + std::to_string(number) +
           "/" + kind->name +
           (kind->timed_key != nullptr ? "=" + std::to_string(milliseconds) : "");
}

std::string Injection::fault() const {
    const std::string timed_line =
        kind->timed_key != nullptr
            ? std::string(kind->timed_key) + " = " + std::to_string(milliseconds) + "\n"
            : "";
    return fault_text(device, event, kind->action,
                      "number = " + std::to_string(number) + "\n" + kind->keys + timed_line);
}

std::string Injection::family() const {
    return std::string_view(kind->name) == "refuse" ? event + " refused" : kind->family;
}

std::optional<Injection> parse_injection(const std::string& text) {
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, '/');) {
        parts.push_back(part);
    }
    if (parts.size() != 5) {
        return std::nullopt;
    }
    Injection injection = {.command = parts[0],
                           .device = parts[1],
                           .event = parts[2],
                           .number = static_cast<int>(std::strtol(parts[3].c_str(), nullptr, 10)),
                           .kind = find_fault_kind(parts[4].substr(0, parts[4].find('=')))};
    if (parts[4].find('=') != std::string::npos) {
        injection.milliseconds = std::stoi(parts[4].substr(parts[4].find('=') + 1));
    }
    if (injection.command.ends_with("-a")) {
        injection.goes_on = true;
        injection.command.resize(injection.command.size() - 2);
    }
    const bool is_whole =
        injection.kind != nullptr && injection.number > 0 && fits(injection.event, *injection.kind);
    return is_whole ? std::optional(injection) : std::nullopt;
}

std::vector<Injection> all_injections(const TransferRecord& record, const std::string& command,
                                      bool goes_on, const std::string& device, Family kind_of_all) {
    std::vector<Injection> all;
    for (const EventKinds& row : event_kinds()) {
        const int count = count_events(record, device, row.event);
        for (int number = 1; number <= count; ++number) {
            for (const char* kind : row.kinds) {
                const FaultKind* const found = find_fault_kind(kind);
                if (found->belongs_to != kind_of_all || found->timed_key != nullptr) {
                    continue;
                }
                all.push_back({.command = command,
                               .goes_on = goes_on,
                               .device = device,
                               .event = std::string(row.event),
                               .number = number,
                               .kind = found});
            }
        }
    }
    return all;
}

namespace {

/// The kind of line that a transfer of the event leaves.
std::string line_kind(const std::string& event) {
    const bool has_own = event == "open" || event == "claim" || event == "detach";
    return has_own || event == "interrupt" ? event : "control";
}

}  // namespace

std::vector<Injection> injections_behind(const TransferRecord& record, std::size_t fault_line,
                                         const Injection& struck) {
    auto lines = record.all();
    std::size_t behind = fault_line + 1;
    while (behind < lines.size() && (lines[behind].device != struck.device ||
                                     lines[behind].kind != line_kind(struck.event))) {
        ++behind;
    }
    if (behind == lines.size()) {
        return {};
    }
    // The device has counted it, whatever became of it.
    lines[behind].result = 0;
    const TransferRecord whole(lines);
    lines.resize(behind + 1);
    const TransferRecord before(lines);
    std::vector<Injection> all =
        all_injections(whole, struck.command, struck.goes_on, struck.device);
    std::map<std::string, int> counts;
    for (const EventKinds& row : event_kinds()) {
        counts[std::string(row.event)] = count_events(before, struck.device, row.event);
    }
    std::erase_if(all, [&](const Injection& one) { return one.number <= counts.at(one.event); });
    return all;
}
