#include "twin/story.h"

#include "common/file_error.h"
#include "flash_protocol.h"
#include "journal/zelfwtrace.h"
#include "zelfwtrace/trace_reader.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <set>
#include <string_view>
#include <utility>

namespace zelfsim {

namespace {

/// More devices than a run's table holds, or messages than a long night of updates sends.
constexpr std::size_t most_devices = 1024;
constexpr std::size_t most_steps = 4U << 20U;

struct Closer {
    void operator()(FILE* stream) const { std::fclose(stream); }
};
using Stream = std::unique_ptr<FILE, Closer>;

Stream open_trace(const std::string& file) {
    Stream stream(std::fopen(file.c_str(), "rbe"));
    if (stream == nullptr) {
        throw FileError(file, 0, std::strerror(errno));
    }
    return stream;
}

/// The number behind `key` in a line; none when it does not stand there.
std::optional<int> number_behind(std::string_view line, std::string_view key, int base = 10) {
    const std::size_t at = line.find(key);
    if (at == std::string_view::npos) {
        return std::nullopt;
    }
    std::string_view text = line.substr(at + key.size());
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    int value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    return error == std::errc{} ? std::optional(value) : std::nullopt;
}

std::optional<std::string> serial_of(std::string_view line) {
    constexpr std::string_view serial_key = "SN='";
    const std::size_t at = line.find(serial_key);
    const std::size_t end = line.rfind('\'');
    if (at == std::string_view::npos || end == std::string_view::npos ||
        end < at + serial_key.size()) {
        return std::nullopt;
    }
    return std::string(line.substr(at + serial_key.size(), end - at - serial_key.size()));
}

/// Follows one process's records.
class Teller {
  public:
    explicit Teller(Story& story) : story_(story) {}

    void take(const TraceEntry& entry) {
        if (entry.kind == trace_kind::text) {
            take_text(entry);
        } else if (entry.is_transfer()) {
            take_transfer(entry);
        }
    }
    void finish() { end_discovery(); }

  private:
    static constexpr std::size_t none = ~std::size_t{0};

    ToldDevice* current() {
        return current_ < story_.devices.size() ? &story_.devices[current_] : nullptr;
    }
    Step* last_step() {
        return current() != nullptr && !current()->steps.empty() ? &current()->steps.back()
                                                                 : nullptr;
    }

    void take_transfer(const TraceEntry& entry) {
        if (current() == nullptr || current()->product != entry.product()) {
            select(entry.product(), std::nullopt);
        }
        if (current() == nullptr) {
            return;
        }
        const std::string_view report = entry.report();
        const Bytes bytes(report.begin(), report.end());
        if (entry.kind == trace_kind::report_written) {
            add_step(entry.clock, bytes);
        } else if (Step* step = last_step()) {
            if (entry.kind == trace_kind::status_read) {
                step->reports.push_back({entry.clock, bytes});
            } else {
                step->data.push_back({entry.usage(), bytes, 0});
            }
        }
    }

    void add_step(double clock, const Bytes& message) {
        ToldDevice& device = *current();
        if (steps_++ >= most_steps) {
            return;
        }
        Step step;
        step.clock = clock;
        step.message = message;
        step.kind = parse_command(message).kind;
        if (step.kind == CommandKind::level_or_stop) {
            step.closes = device.steps.empty() ||
                          device.steps.back().kind != CommandKind::device_info || just_opened_;
        }
        just_opened_ = false;
        device.steps.push_back(std::move(step));
    }

    void take_text(const TraceEntry& entry) {
        const std::string_view line = entry.payload;
        if (take_identity(line, entry.clock) || take_failure(line, entry.clock)) {
            return;
        }
        take_debug(line);
    }

    bool take_identity(std::string_view line, double clock) {
        if (line.starts_with("Command line:")) {
            story_.command_line = line.substr(line.find(':') + 1);
            story_.command_line.resize(story_.command_line.find_last_not_of('\n') + 1);
            return true;
        }
        if (line.starts_with("Processing ")) {
            process(line, clock);
            return true;
        }
        if (line.starts_with("  Device - PID:")) {
            end_discovery();
            select_by_line(line);
            take_level(line);
            open(clock);
            return true;
        }
        if (line.starts_with("Resetting device PID:") ||
            line.starts_with("Reading data from device PID:")) {
            end_discovery();
            select_by_line(line);
            open(clock, true);
            return true;
        }
        if (line.starts_with("PID: ") && line.find("(SN='") != std::string_view::npos) {
            end_discovery();
            take_list_line(line);
            return true;
        }
        return false;
    }

    /// "Processing vvvv:pppp:uuuu-1": the next device of a walk along the bus.
    void process(std::string_view line, double clock) {
        const auto vendor = number_behind(line, "Processing ", 16);
        const auto product = number_behind(line, ":", 16);
        if (!vendor || !product || *vendor > 0xFFFF || *product > 0xFFFF) {
            return;
        }
        if (!discovering_) {
            discovering_ = true;
            ++discoveries_;
            discovery_clock_ = clock;
            listed_.clear();
        }
        const auto fits = [&](const ToldDevice& device) {
            return device.vendor == *vendor && device.product == *product;
        };
        current_ = none;
        for (std::size_t i = 0; i < story_.devices.size(); ++i) {
            if (fits(story_.devices[i]) &&
                std::find(listed_.begin(), listed_.end(), i) == listed_.end()) {
                current_ = i;
                break;
            }
        }
        if (current_ == none) {
            if (story_.devices.size() == most_devices) {
                return;
            }
            current_ = story_.devices.size();
            ToldDevice device;
            device.vendor = static_cast<std::uint16_t>(*vendor);
            device.product = static_cast<std::uint16_t>(*product);
            for (unsigned before = 1; before < discoveries_; ++before) {
                device.sightings.push_back({Sighting::Kind::missing, 0, 0});
            }
            story_.devices.push_back(device);
        }
        listed_.push_back(current_);
        ToldDevice& device = *current();
        device.sightings.push_back({Sighting::Kind::listed, clock, device.steps.size()});
        if (device.reports.bcd == std::nullopt && path_) {
            device.reports = *path_;
        }
        path_.reset();
        just_opened_ = true;
        row_ = none;
    }

    /// The devices that the walk did not come across were not there.
    void end_discovery() {
        if (!discovering_) {
            return;
        }
        discovering_ = false;
        for (std::size_t i = 0; i < story_.devices.size(); ++i) {
            if (std::find(listed_.begin(), listed_.end(), i) == listed_.end()) {
                ToldDevice& device = story_.devices[i];
                device.sightings.push_back(
                    {Sighting::Kind::missing, discovery_clock_, device.steps.size()});
            }
        }
    }

    /// How well a line names a device. Each component of a device has one such line in a run, so
    /// that devices of one product and serial number, or none, follow each other.
    int fitness(std::size_t index, std::uint16_t product, const std::optional<std::string>& serial,
                std::optional<int> component) const {
        enum { other_product, other_serial, named_before, without_serial, exact };
        const ToldDevice& device = story_.devices[index];
        if (device.product != product) {
            return other_product;
        }
        if (serial && device.serial && device.serial != serial) {
            return other_serial;
        }
        if (component && named_.contains({index, *component})) {
            return named_before;
        }
        return device.serial == serial ? exact : without_serial;
    }

    /// A device's line of the log: by its serial number, which the first such line gives it.
    void select(std::uint16_t product, const std::optional<std::string>& serial,
                std::optional<int> component = {}) {
        current_ = none;
        int best = 0;
        for (std::size_t i = 0; i < story_.devices.size(); ++i) {
            const int fits = fitness(i, product, serial, component);
            if (fits > best) {
                best = fits;
                current_ = i;
            }
        }
        if (current() == nullptr) {
            return;
        }
        if (component) {
            named_.insert({current_, *component});
        }
        if (serial && !current()->serial) {
            current()->serial = serial;
        }
    }

    void select_by_line(std::string_view line) {
        if (const auto product = number_behind(line, "PID:", 16)) {
            select(static_cast<std::uint16_t>(*product), serial_of(line),
                   number_behind(line, "COMP:", 16).value_or(-1));
        }
    }

    void take_list_line(std::string_view line) {
        const auto component = number_behind(line, "COMP:", 16);
        if (!component) {
            return;
        }
        const auto product =
            static_cast<std::uint16_t>(number_behind(line, "PID:", 16).value_or(0));
        if (*component == 0) {
            // The next row of the table: rows with one serial number, or none, follow each other.
            std::size_t next = row_ == none ? 0 : row_ + 1;
            while (next < story_.devices.size() && story_.devices[next].product != product) {
                ++next;
            }
            if (next < story_.devices.size()) {
                row_ = current_ = next;
                current()->serial = serial_of(line);
            }
        }
        take_level(line);
    }

    void take_level(std::string_view line) {
        const auto component = number_behind(line, "COMP:", 16);
        const std::size_t at = line.rfind("EC: ");
        if (!component || current() == nullptr || at == std::string_view::npos ||
            line.size() < at + 9) {
            return;
        }
        ToldLevel level{std::string(line.substr(at + 4, 5)), 0};
        if (line.size() > at + 11 && line[at + 9] == '.') {
            level.build =
                static_cast<unsigned>(number_behind(line.substr(at + 9, 3), ".", 16).value_or(0));
        }
        current()->levels.emplace(static_cast<unsigned>(*component), level);
    }

    void open(double clock, bool is_sure = false) {
        if (current() == nullptr) {
            return;
        }
        pending_open_ = Sighting{Sighting::Kind::opened, clock, current()->steps.size()};
        if (is_sure) {
            settle_open();
        }
    }

    void settle_open() {
        if (pending_open_ && current() != nullptr) {
            pending_open_->step = current()->steps.size();
            current()->sightings.push_back(*pending_open_);
        }
        pending_open_.reset();
    }

    bool take_failure(std::string_view line, double clock) {
        if (line.starts_with("    Starting firmware update of")) {
            settle_open();
            return true;
        }
        if (line.starts_with("Nothing was sent to Product ID") && current() != nullptr &&
            line.find("it can't be opened") != std::string_view::npos) {
            if (!current()->sightings.empty()) {
                current()->sightings.back().kind = Sighting::Kind::refused;
            }
            return true;
        }
        Step* step = last_step();
        const auto rc = number_behind(line, "rc=");
        if (step == nullptr || !rc) {
            return false;
        }
        if (line.starts_with("Write ") && line.find("(usage=") != std::string_view::npos) {
            step->write_rc = rc;
            return true;
        }
        if (line.starts_with("Read ") && !line.starts_with("Read Request") &&
            !line.starts_with("Read failed on") && !line.starts_with("Read of ")) {
            step->failures.push_back({clock, *rc});
            return true;
        }
        if (line.starts_with("Get Feature Report a003 rc=") ||
            line.starts_with("Get Feature Report 1603 rc=")) {
            step->data.push_back(
                {static_cast<std::uint16_t>(line.find("a003") != std::string_view::npos ? 0xA003
                                                                                        : 0x1603),
                 std::nullopt, feature_rc_});
            feature_rc_ = 0;
            return true;
        }
        return false;
    }

    /// Lines that the program writes with `-n 3` and above.
    void take_debug(std::string_view line) {
        if (line.starts_with("Get feature ")) {
            feature_rc_ = line.find("not connected") != std::string_view::npos ? -4
                          : line.find("timeout") != std::string_view::npos     ? -7
                          : line.find("pipe error") != std::string_view::npos
                              ? -9
                              : number_behind(line, "rc=").value_or(0);
            return;
        }
        if (line.starts_with("HIDDEVICE2(") && line.find("&ec_") != std::string_view::npos) {
            ToldReports path;
            const auto number = [&](std::string_view key, int base) {
                const auto value = number_behind(line, key, base);
                return value && *value >= 0 ? std::optional(static_cast<unsigned>(*value))
                                            : std::nullopt;
            };
            path.interface = number("&mi_", 10);
            path.bcd = number("&ec_", 16);
            path.port = number("&port_", 10);
            path_ = path;
            return;
        }
        if (current() == nullptr) {
            return;
        }
        ToldReports& reports = current()->reports;
        const auto size = number_behind(line, "Size=");
        if (size && line.find("ReportID: ") != std::string_view::npos) {
            reports.ids = reports.ids || number_behind(line, "ReportID: ", 16).value_or(0) != 0;
            if (line.find("Usage=ff45:a001") != std::string_view::npos) {
                reports.output = static_cast<unsigned>(std::max(*size, 0));
            } else if (line.find("Usage=ff45:a003") != std::string_view::npos ||
                       line.find("Usage=ff45:1603") != std::string_view::npos) {
                reports.feature = static_cast<unsigned>(std::max(*size, 0));
            }
        }
        const auto packet = number_behind(line, "MaxPacketSize=");
        if (packet && line.find("Address=8") != std::string_view::npos) {
            reports.in_packet = static_cast<unsigned>(std::max(*packet, 0));
        }
    }

    Story& story_;
    std::size_t current_ = none;
    std::size_t row_ = none;
    std::size_t steps_ = 0;
    std::vector<std::size_t> listed_;
    std::set<std::pair<std::size_t, int>> named_;  ///< devices and components that had their line
    unsigned discoveries_ = 0;
    bool discovering_ = false;
    bool just_opened_ = false;
    int feature_rc_ = 0;
    double discovery_clock_ = 0;
    std::optional<ToldReports> path_;
    std::optional<Sighting> pending_open_;
};

/// Reads the file record by record until `take` has enough; damaged places are stepped over.
void read_entries(const std::string& trace, Story& story,
                  const std::function<bool(const TraceEntry&)>& take) {
    const Stream stream = open_trace(trace);
    TraceReader reader(stream.get());
    do {
        for (TraceEntry entry; reader.next(entry);) {
            if (!take(entry)) {
                return;
            }
        }
        if (reader.damage() && story.damage.empty()) {
            story.damage = "offset " + std::to_string(reader.damage()->offset) + ": " +
                           reader.damage()->reason;
        }
    } while (reader.step_over_damage());
}

std::string why_no_run(const Story& story, int run) {
    if (story.runs == 0) {
        return "no run of the updater in it";
    }
    return "there is no run " + std::to_string(run) + ", it has " + std::to_string(story.runs) +
           (story.runs == 1 ? " run" : " runs");
}

}  // namespace

Story read_story(const std::string& trace, int run) {
    Story story;
    read_entries(trace, story, [&story](const TraceEntry& entry) {
        story.runs += entry.kind == trace_kind::version ? 1 : 0;
        return true;
    });
    const std::int64_t number = run < 0 ? std::int64_t{story.runs} + 1 + run : run;
    if (number < 1 || number > story.runs) {
        throw FileError(trace, 0, why_no_run(story, run));
    }
    story.run = static_cast<unsigned>(number);
    Teller teller(story);
    unsigned begun = 0;
    std::optional<std::uint32_t> process;
    read_entries(trace, story, [&](const TraceEntry& entry) {
        if (entry.kind == trace_kind::version) {
            if (++begun == story.run) {
                process = entry.process;
                return true;
            }
            if (process == entry.process) {
                return false;
            }
        }
        if (process == entry.process) {
            teller.take(entry);
        }
        return true;
    });
    teller.finish();
    return story;
}

}  // namespace zelfsim
