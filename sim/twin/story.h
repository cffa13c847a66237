/// \file
/// What a run of the updater lived through with each device, as its trace tells it.
#pragma once

#include "model/device/basics.h"
#include "model/device/flash_command.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace zelfsim {

/// A report that a device sent.
struct ToldReport {
    double clock = 0;  ///< milliseconds since the run began
    Bytes bytes;
};

/// An attempt to fetch a data answer; no bytes where it failed.
struct ToldData {
    std::uint16_t usage = 0;
    std::optional<Bytes> bytes;
    int rc = 0;  ///< the USB library's, where a failed attempt tells it
};

/// A read of reports that failed.
struct ToldFailure {
    double clock = 0;
    int rc = 0;
};

/// A message to the device, and what came of it before the next one.
struct Step {
    double clock = 0;
    Bytes message;
    CommandKind kind = CommandKind::unknown;
    bool closes = false;          ///< the stop command, not a query of the level
    std::optional<int> write_rc;  ///< of a message that was not sent
    std::vector<ToldReport> reports;
    std::vector<ToldData> data;
    std::vector<ToldFailure> failures;
};

/// A place in the story at which the device was looked for, or tried to be opened.
struct Sighting {
    enum class Kind { listed, missing, opened, refused };
    Kind kind = Kind::listed;
    double clock = 0;
    std::size_t step = 0;  ///< the first one behind it
};

struct ToldLevel {
    std::string level;  ///< "01.02"
    unsigned build = 0;
};

/// Sizes and numbers that a trace with debug lines tells.
struct ToldReports {
    std::optional<unsigned> output, feature;
    bool ids = false;
    std::optional<unsigned> interface, bcd, in_packet, port;
};

struct ToldDevice {
    std::uint16_t vendor = 0;
    std::uint16_t product = 0;
    std::optional<std::string> serial;
    std::vector<Step> steps;
    std::vector<Sighting> sightings;
    std::map<unsigned, ToldLevel> levels;  ///< that lines of the log name first, by component
    ToldReports reports;
};

struct Story {
    unsigned run = 0;   ///< which of the file
    unsigned runs = 0;  ///< how many the file has
    std::string command_line;
    std::vector<ToldDevice> devices;
    std::string damage;  ///< the first place that makes no sense; empty when there is none
};

/// Reads a run, counted from 1, or with a negative number from the last, which is -1. Throws
/// FileError.
Story read_story(const std::string& trace, int run);

}  // namespace zelfsim
