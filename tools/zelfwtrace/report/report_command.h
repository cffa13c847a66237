/// \file
/// `zelfwtrace report`: the page of some traces, or of a fleet.
#pragma once

#include "zelfwtrace/arguments.h"
#include "zelfwtrace/output.h"

#include <functional>
#include <string>

/// Reads a trace into the output. Returns the reason when it can't be read, else sets whether it is
/// damaged.
using TraceRead =
    std::function<std::string(const std::string& file, TraceOutput& output, bool& is_damaged)>;
/// Tells of a failure, which the exit code will tell, too.
using TellFailure = std::function<void(const std::string& subject, const std::string& reason)>;

/// False when something could not be read or written.
bool write_report(const TraceArguments& arguments, const TraceRead& read, const TellFailure& tell);
