/// \file
/// Faults of a simulated device: rules from the bus file, and the count that makes them strike.
#pragma once

#include "model/device/basics.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace zelfsim {

/// Something a fault can strike at.
enum class FaultEvent {
    control,
    get_descriptor,
    string,
    report_descriptor,
    set_report,
    get_feature,
    record_read,
    interrupt,
    command,
    status_request,
    reset,
    stop,
    ec_level,
    device_info,
    erase,
    record,
    checksum,
    component_version,
    component_list,
    extended_list,
    read_records,
    open,
    claim,
    detach,
};

enum class FaultAction {
    unplug,
    stall,
    timeout,
    io_error,
    overflow,
    short_packet,
    empty,
    crash,
    reject,
    operation_error,
    answer,
    late,
    no_answer,
    unasked,
    data,
    refuse,
    busy,
    signal,
};

struct FaultRule {
    FaultEvent at = FaultEvent::control;
    FaultAction action = FaultAction::stall;
    unsigned number = 1;
    std::optional<std::uint8_t> byte;
    std::optional<std::uint8_t> component;
    bool always = false;
    Duration delay{0};
    Duration answer_delay{0};  ///< of the own status, beside an unasked one
    std::optional<Duration> replug;
    Bytes bytes;
    std::size_t length = 1;
    int signal = 0;  ///< that the process is sent

    /// Names the rule among its device's: "record#10:unplug".
    std::string key() const;
};

/// The names of the bus file; none for an unknown name.
std::optional<FaultEvent> fault_event(std::string_view name);
std::optional<FaultAction> fault_action(std::string_view name);

/// All events as a bus file names them, and all actions that can happen at one, as a list to read.
std::string fault_event_names();
std::string fault_action_names(FaultEvent event);

/// The number of a signal, as in "SIGTERM".
std::optional<int> signal_number(std::string_view name);
std::string signal_names();

/// Whether `action` can happen at `event`.
bool fits(FaultEvent event, FaultAction action);

/// True for actions that hit the transfer itself, false for those that change what the device
/// answers to a command.
bool hits_transfer(FaultAction action);

/// What a rule's filters look at.
struct FaultContext {
    std::optional<std::uint8_t> byte;
    std::optional<std::uint8_t> component;
};

/// The rules of one device with their counts.
class FaultSet {
  public:
    FaultSet(std::vector<FaultRule> rules, std::set<std::string>& fired);

    /// Counts one transfer that is all of `events`; gives the first rule that strikes, or null.
    /// The rule lives as long as the set.
    const FaultRule* strike(std::span<const FaultEvent> events, const FaultContext& context = {});

    /// Image records count from each erase.
    void restart_record_count();

  private:
    struct Counted {
        FaultRule rule;
        unsigned count = 0;
    };

    bool due(const Counted& counted) const;

    std::vector<Counted> rules_;
    std::set<std::string>& fired_;
};

}  // namespace zelfsim
