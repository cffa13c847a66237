/// \file
/// The command line of zelfwtrace.
#pragma once

#include "common/time_text.h"
#include "zelfwtrace/filter.h"

#include <optional>
#include <string>
#include <vector>

enum class TraceCommand { show, summary, pcap, explain, redact, report };

struct TraceArguments {
    bool help = false;
    bool version = false;
    TraceCommand command = TraceCommand::show;
    bool json = false;
    bool with_bytes = false;
    bool follow = false;
    zelf::TimeZone zone = zelf::TimeZone::local;
    std::string capture;  ///< of `pcap`, `redact` and `report`: the file that is written
    TraceFilter filter;
    std::string file;                ///< "-": standard input
    std::vector<std::string> files;  ///< of `report`: all of them, some as NAME=FILE
    std::string tills;               ///< of `report`: the list of a fleet
};

extern const char trace_help_text[];

/// Reads the words behind the program's name. Returns the reason when they are wrong.
std::optional<std::string> parse_trace_arguments(const std::vector<std::string>& given,
                                                 TraceArguments& arguments);
