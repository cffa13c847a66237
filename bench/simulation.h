/// \file
/// Simulated buses and firmware files for the benchmarks, in a directory that goes with them.
#pragma once

#include <filesystem>
#include <map>
#include <string>

/// How long the simulated devices take, in milliseconds.
struct DeviceTiming {
    double transfer = 0;  ///< a control transfer
    double answer = 0;    ///< from a query or a record to its status
};

/// A device that answers before the program looks for the first time.
constexpr DeviceTiming instant = {};
/// Full speed: frames of 1 ms, one packet of 64 bytes in each; a report with a record takes five.
constexpr DeviceTiming full_speed = {.transfer = 5, .answer = 1};

class Simulation {
  public:
    Simulation();
    ~Simulation();
    Simulation(const Simulation&) = delete;
    Simulation& operator=(const Simulation&) = delete;

    std::string path(const std::string& name) const { return (directory_ / name).string(); }
    /// Writes a bus of `devices` printers and gives its path.
    std::string make_bus(const std::string& name, int devices, const DeviceTiming& timing) const;
    /// Makes a firmware file for the printers, alone in a new directory, and gives the directory.
    /// `records` counts all that the program sends, the checksum aside.
    std::string make_firmware(const std::string& name, int records) const;
    /// What has the program open the simulated bus.
    std::map<std::string, std::string> environment(const std::string& bus) const;

  private:
    std::filesystem::path directory_;
};

/// The control transfers in a transfer record of the simulated bus.
int count_control_transfers(const std::string& record);

/// The firmware file's format has this many records in front of the data.
constexpr int information_records = 2;
/// A record's payload, in bytes; with its frame it fills five packets.
constexpr int record_payload = 252;
