/// \file
/// The tills of a fleet: what was said of each in a list, and what its trace tells.
#pragma once

#include "zelfwtrace/report/run_digest.h"

#include <cstddef>
#include <string>
#include <vector>

enum class TillState { failed, unreachable, held_back, not_begun, updated, current };
constexpr std::size_t till_states = 6;
const char* till_state_name(TillState state);

/// A row of the list.
struct ListedTill {
    std::string name;
    TillState state = TillState::not_begun;
    std::string reason;  ///< may be empty, and so may be the following
    std::string trace;
    std::string report;  ///< of the till's own page, as seen from the fleet's page
};

/// Reads a list in JSON. Throws std::runtime_error that says what is wrong with it.
std::vector<ListedTill> read_tills(const std::string& json);

/// A component's level, before the runs of a trace and after them.
struct LevelChange {
    std::string device, component, serial;
    std::string before, after;  ///< `after` is empty where nothing tells it
    std::string outcome;        ///< of its last update; empty when there was none
    bool is_bad = false;
};

struct FleetTill {
    ListedTill listed;
    bool has_trace = false;
    std::string fault;  ///< of a trace that could not be read
    double length = 0;  ///< milliseconds, of all runs together
    std::vector<LevelChange> levels;
    std::vector<std::string> causes;
};

/// Adds what the trace tells.
void conclude(const RunDigests& runs, FleetTill& till);
