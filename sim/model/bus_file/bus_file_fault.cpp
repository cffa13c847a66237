#include "model/bus_file/bus_file_fault.h"

#include "common/hex_digit.h"

#include <array>
#include <string>
#include <string_view>

namespace zelfsim {

namespace {

constexpr std::size_t longest_word = 32;
constexpr std::size_t most_bytes = 1024;

constexpr std::array<std::string_view, 13> fault_keys{
    "device", "at",        "number",    "byte",  "component", "action", "times",
    "ms",     "answer_ms", "replug_ms", "bytes", "length",    "signal"};

Bytes read_bytes(const zelf::TomlTable& table) {
    Bytes bytes;
    int high = -1;
    for (const char character : table.required_text("bytes", most_bytes * 3)) {
        if (character == ' ' && high < 0) {
            continue;
        }
        const int digit = zelf::hex_digit(character);
        if (digit < 0) {
            table.fail("bytes", "\"bytes\" must be pairs of hexadecimal digits");
        }
        if (high < 0) {
            high = digit;
        } else {
            bytes.push_back(static_cast<std::uint8_t>(high * 16 + digit));
            high = -1;
        }
    }
    if (high >= 0) {
        table.fail("bytes", "\"bytes\" must be pairs of hexadecimal digits");
    }
    return bytes;
}

int read_signal(const zelf::TomlTable& table) {
    const std::string name = table.required_text("signal", longest_word);
    const auto number = signal_number(name);
    if (!number) {
        table.fail("signal", "unknown signal \"" + name + "\"; the signals are " + signal_names());
    }
    return *number;
}

void refuse_unless(bool allowed, const zelf::TomlTable& table, std::string_view key,
                   const std::string& where) {
    if (!allowed && table.has(key)) {
        table.fail(key, "\"" + std::string(key) + "\" goes only with " + where);
    }
}

/// Keys that only some events or actions understand.
void refuse_misplaced(const zelf::TomlTable& table, FaultEvent at, FaultAction action) {
    const bool unplug = action == FaultAction::unplug;
    refuse_unless(at == FaultEvent::command, table, "byte", "at = \"command\"");
    refuse_unless(at == FaultEvent::record || at == FaultEvent::checksum, table, "component",
                  "at = \"record\" or \"checksum\"");
    const bool signal = action == FaultAction::signal;
    const bool unasked = action == FaultAction::unasked;
    refuse_unless(unplug || signal || unasked || action == FaultAction::late, table, "ms",
                  "\"late\", \"unasked\", \"unplug\" and \"signal\"");
    refuse_unless(unasked, table, "answer_ms", "\"unasked\"");
    refuse_unless(signal, table, "signal", "action = \"signal\"");
    refuse_unless(unplug, table, "replug_ms", "\"unplug\"");
    refuse_unless(action == FaultAction::answer || action == FaultAction::data || unasked, table,
                  "bytes", "\"answer\", \"data\" and \"unasked\"");
    refuse_unless(action == FaultAction::short_packet, table, "length", "\"short\"");
}

}  // namespace

void know_fault_keys(const zelf::TomlTable& table) {
    table.know_only({fault_keys});
}

FaultRule read_fault(const zelf::TomlTable& table) {
    constexpr std::int64_t highest_number = 1000000;
    constexpr std::int64_t highest_component = 14;
    FaultRule rule;
    const std::string at = table.required_text("at", longest_word);
    const auto event = fault_event(at);
    if (!event) {
        table.fail("at", "unknown event \"" + at + "\"; the events are " + fault_event_names());
    }
    const std::string what = table.required_text("action", longest_word);
    const auto action = fault_action(what);
    if (!action) {
        table.fail("action", "unknown action \"" + what + "\"; at \"" + at + "\" there are " +
                                 fault_action_names(*event));
    }
    if (!fits(*event, *action)) {
        table.fail("action", "\"" + what + "\" cannot happen at \"" + at + "\", only " +
                                 fault_action_names(*event));
    }
    rule.at = *event;
    rule.action = *action;
    refuse_misplaced(table, rule.at, rule.action);
    rule.number = static_cast<unsigned>(table.integer("number", 1, highest_number).value_or(1));
    if (const auto byte = table.integer("byte", 0, 0xFF)) {
        rule.byte = static_cast<std::uint8_t>(*byte);
    }
    if (const auto component = table.integer("component", 0, highest_component)) {
        rule.component = static_cast<std::uint8_t>(*component);
    }
    const std::string times = table.text("times", longest_word).value_or("once");
    if (times != "once" && times != "always") {
        table.fail("times", "\"times\" must be \"once\" or \"always\"");
    }
    rule.always = times == "always";
    rule.delay = table.milliseconds("ms").value_or(Duration{0});
    rule.answer_delay = table.milliseconds("answer_ms").value_or(Duration{0});
    rule.replug = table.milliseconds("replug_ms");
    rule.length = static_cast<std::size_t>(
        table.integer("length", 0, static_cast<std::int64_t>(most_bytes)).value_or(1));
    if (rule.action == FaultAction::answer || rule.action == FaultAction::data ||
        rule.action == FaultAction::unasked) {
        rule.bytes = read_bytes(table);
    }
    if (rule.action == FaultAction::signal) {
        rule.signal = read_signal(table);
    }
    return rule;
}

}  // namespace zelfsim
