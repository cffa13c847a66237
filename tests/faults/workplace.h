/// \file
/// The bus of the campaign with its state, its firmware files, and runs of the program on it.
#pragma once

#include "child.h"
#include "support/device_state.h"
#include "support/firmware_file.h"
#include "support/temporary_directory.h"
#include "support/transfer_record.h"
#include "virtual_time.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

/// A component that the reference update brings to a file's bytes.
struct Target {
    const char* device;
    const char* file_name;
    FirmwareFile file;
    bool is_forced;  ///< its file has the component's own level, and a ".force" marker
    std::vector<std::string> messages = file.messages();
    std::string body = file.body();
};

/// Two devices, three components, 60 records. A third device is given no file.
const std::vector<Target>& targets();
const Target* find_target(int product, int component);
/// The device's name; empty for another product.
std::string device_of(int product);
int product_of(const std::string& device);
constexpr char bystander[] = "bystander";

/// The program's time-outs in these runs, in milliseconds.
constexpr int information_timeout = 2000;
constexpr int other_timeouts = 1500;
/// The USB layer's own, for a report.
constexpr int transfer_timeout = 5000;

/// What one run of the program left behind.
struct Run {
    ChildEnd end;
    std::string console, errors, log, results;
    TransferRecord record;
};

class Workplace {
  public:
    using Starter = ChildEnd (*)(const ChildSettings& settings);

    /// With no state yet, all firmware files, and the marker.
    /// Without a schedule the runs are in real time.
    Workplace(std::string program, std::optional<Schedule> schedule, Starter starter);

    /// `command` is "update", "list", "reset", "read" or "force"; `fault` is text for the bus file.
    Run run(const std::string& command, bool goes_on, const std::string& fault, bool with_debug_log,
            std::chrono::milliseconds longest);

    /// Lets time pass between two runs.
    void pass(std::chrono::milliseconds length) const;

    /// None when the device has never had anything to remember.
    std::optional<DeviceState> state(const std::string& device) const;
    bool holds_image(const Target& target) const;
    bool has_image(const std::string& device, int component) const;
    bool is_broken(const Target& target) const;
    /// Whether the image waits for the device to restart.
    bool is_pending(const Target& target) const;
    bool has_marker() const;
    /// What a component was read into; none when nothing was written.
    std::optional<std::string> read_data() const;
    std::filesystem::path path(const std::string& name = "") const { return directory_.path(name); }

  private:
    std::vector<std::string> arguments(const std::string& command, bool goes_on,
                                       bool with_debug_log) const;
    /// A file of the present run: those of the earlier ones are kept.
    std::string journal(const std::string& name) const {
        return path(std::to_string(runs_) + "-" + name).string();
    }

    std::string program_;
    std::optional<Schedule> schedule_;
    Starter starter_;
    TemporaryDirectory directory_;
    int runs_ = 0;
};
