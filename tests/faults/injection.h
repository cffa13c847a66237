/// \file
/// Faults to inject: which run, which device, at which of its transfers, what happens.
#pragma once

#include "support/transfer_record.h"

#include <optional>
#include <string>
#include <vector>

/// What a campaign does to its runs.
enum class Family {
    faults,   ///< of a device or its bus
    kills,    ///< an end without warning
    signals,  ///< a request to end
    clock,    ///< the wall clock is set in mid-run
    pairs,    ///< two faults of one device, the second one behind the first
    late,     ///< an answer that comes when the next command has been sent
    unasked,  ///< a status report that nobody asked for
    all,      ///< every one of these
};

/// A kind of fault, in the words of the bus file.
struct FaultKind {
    const char* name;    ///< in an injection's text
    const char* family;  ///< the row of the summary
    const char* action;
    const char* keys;  ///< further lines of the fault
    Family belongs_to = Family::faults;
    const char* timed_key = nullptr;  ///< takes the injection's own milliseconds

    bool is_refusal() const;
};

/// Null for an unknown name.
const FaultKind* find_fault_kind(const std::string& name);

/// One fault in one run. Its text, "update-a/printer/control/12/stall", says all of it. Behind a
/// timed kind stand its milliseconds: "update/printer/command/4/unasked=7".
struct Injection {
    std::string command;   ///< "update", "list", "reset", "read"
    bool goes_on = false;  ///< with `-a`
    std::string device;
    std::string event;
    int number = 0;
    const FaultKind* kind = nullptr;
    int milliseconds = 0;  ///< of a timed kind

    bool belongs_to(Family family) const { return kind->belongs_to == family; }
    std::string text() const;
    /// The `[[fault]]` of the bus file.
    std::string fault() const;
    /// The summary's name of the fault.
    std::string family() const;
    /// What is struck, and how: "control/stall".
    std::string target() const { return event + "/" + kind->name; }
    /// Whether the run writes its debug lines: every other one does.
    bool has_debug_log() const { return number % 2 == 1; }
};

/// None for a text that names no injection.
std::optional<Injection> parse_injection(const std::string& text);

/// All of the family that can strike the device in a run that was recorded without any. No timed
/// kinds: those have moments to be drawn.
std::vector<Injection> all_injections(const TransferRecord& record, const std::string& command,
                                      bool goes_on, const std::string& device,
                                      Family kind_of_all = Family::faults);

/// Those faults that can strike the device after the one that struck it, whose line in the record
/// is given.
std::vector<Injection> injections_behind(const TransferRecord& record, std::size_t fault_line,
                                         const Injection& struck);
