#include "twin/device_guess.h"

#include "flash_protocol.h"
#include "model/device/image_receiver.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <set>

namespace zelfsim {

namespace {

constexpr std::size_t entries = component_list_answer::entries;
constexpr std::size_t extended_entry = sizeof(extended_component_id);
constexpr std::size_t plain_entry = sizeof(component_id);
constexpr std::uint8_t highest_component = 14;

bool has_flags(const ToldReport& report, unsigned flags) {
    return !report.bytes.empty() && report.bytes[0] == flags;
}

bool is_refused(const ToldReport& report) {
    return !report.bytes.empty() && is_bad_status(report.bytes[0]);
}

/// Whether the data answer is a well-formed list of one kind.
bool is_list(const Bytes& data, std::uint8_t subtype, std::size_t entry) {
    return data.size() > entries && data[0] == 1 && data[3] == 0xFF && data[4] == 0 &&
           data[5] == subtype && data[2] > 0 && data[2] % entry == 0 &&
           data.size() >= entries + data[2];
}

/// False when an entry is not one of a device that the bus file can describe.
bool take_entries(const Bytes& data, std::size_t entry, std::vector<ComponentDescription>& taken) {
    std::vector<ComponentDescription> components;
    for (std::size_t at = entries; at + entry <= entries + data[2]; at += entry) {
        ComponentDescription component;
        component.id = data[at];
        component.version = {data[at + 2], data[at + 1],
                             entry == extended_entry ? data[at + 4] : std::uint8_t{0}};
        const unsigned type = data[at + 3] >> 1;
        if (component.id > highest_component || type > 3) {
            return false;
        }
        component.type = static_cast<ComponentType>(type);
        component.random = (data[at + 3] & 1) != 0;
        const bool known = std::any_of(components.begin(), components.end(),
                                       [&](const auto& one) { return one.id == component.id; });
        if (known) {
            return false;
        }
        components.push_back(component);
    }
    taken = components;
    return true;
}

const Bytes* first_data(const Step& step) {
    for (const ToldData& data : step.data) {
        if (data.bytes) {
            return &*data.bytes;
        }
    }
    return nullptr;
}

/// The median of the milliseconds that messages of these kinds waited for their answers.
std::optional<double> median_wait(const ToldDevice& told,
                                  std::initializer_list<CommandKind> kinds) {
    std::vector<double> waits;
    for (const Step& step : told.steps) {
        if (std::find(kinds.begin(), kinds.end(), step.kind) != kinds.end() &&
            step.reports.size() == 1 && !step.write_rc && !is_refused(step.reports.front())) {
            waits.push_back(std::max(0.0, step.reports.front().clock - step.clock));
        }
    }
    if (waits.empty()) {
        return std::nullopt;
    }
    const auto middle = waits.begin() + static_cast<std::ptrdiff_t>(waits.size() / 2);
    std::nth_element(waits.begin(), middle, waits.end());
    return *middle;
}

class Guesser {
  public:
    explicit Guesser(const ToldDevice& told) : told_(told) {}

    DeviceGuess run() {
        DeviceDescription& device = guess_.device;
        device.vendor = told_.vendor;
        device.product = told_.product;
        device.serial = told_.serial.value_or("");
        if (device.serial.size() > 126) {
            device.serial.resize(126);
        }
        if (!told_.serial) {
            remark("the serial number: none");
        }
        device.flash.emplace();
        take_information();
        take_lists();
        take_levels();
        take_reports();
        take_times();
        return guess_;
    }

  private:
    FlashDescription& flash() { return *guess_.device.flash; }
    void remark(const std::string& text) { guess_.remarks.push_back(text); }

    void take_information() {
        bool asked = false;
        bool all_refused = true;
        for (const Step& step : told_.steps) {
            for (const ToldReport& report : step.reports) {
                if (step.kind != CommandKind::device_info) {
                    continue;
                }
                asked = true;
                all_refused = all_refused && has_flags(report, status_flag::reject);
                if (has_flags(report, status_flag::completed | status_flag::device_information) &&
                    !features_) {
                    features_ = report.bytes.at(device_information_answer::features);
                    flash().device_type = report.bytes.at(device_information_answer::type);
                    flash().device_id = report.bytes.at(device_information_answer::id);
                    flash().command_set = report.bytes.at(device_information_answer::command_set);
                }
            }
        }
        flash().device_info = !asked || !all_refused;
        flash().features = features_;
        if (!features_) {
            remark("the device information: type, ID and command set 1");
        } else {
            flash().read_records = (*features_ & 0x10) != 0;
        }
    }

    /// The kind of list, and its components if one was given.
    void take_lists() {
        bool refused_extended = false;
        bool refused_plain = false;
        bool extended = false;
        bool plain = false;
        for (const Step& step : told_.steps) {
            note_change(step);
            const bool is_extended = step.kind == CommandKind::extended_list;
            if (!is_extended && step.kind != CommandKind::component_list) {
                take_version(step);
                continue;
            }
            const bool refused = !step.reports.empty() && is_refused(step.reports.front());
            (is_extended ? refused_extended : refused_plain) |= refused;
            const bool given = !step.reports.empty() && !refused;
            (is_extended ? extended : plain) |= given;
            const Bytes* data = first_data(step);
            if (data == nullptr || listed_) {
                continue;
            }
            listed_ = is_extended ? is_list(*data, 2, extended_entry) &&
                                        take_entries(*data, extended_entry, flash().components)
                                  : is_list(*data, 1, plain_entry) &&
                                        take_entries(*data, plain_entry, flash().components);
        }
        const bool asks_extended = features_ && (*features_ & 0x40) != 0;
        flash().list = extended || (asks_extended && !refused_extended) ? ListKind::extended
                       : plain || !refused_plain                        ? ListKind::plain
                                                                        : ListKind::none;
        if (!extended && !plain && !refused_plain) {
            remark("the kind of list");
        }
    }

    /// Until there is a list: the components that were sent an image before it.
    void note_change(const Step& step) {
        if (listed_ || step.kind != CommandKind::record) {
            return;
        }
        if (const auto id = ImageReceiver::named_component(parse_command(step.message).record)) {
            changed_.insert(*id);
        }
    }

    void take_version(const Step& step) {
        const Bytes* data = first_data(step);
        if (step.kind != CommandKind::component_version || data == nullptr || data->size() < 8 ||
            (*data)[3] >> 4 != 0xF) {
            return;
        }
        const auto id = static_cast<std::uint8_t>((*data)[3] & 0xF);
        if (id <= highest_component) {
            versions_.emplace(id, Version{(*data)[7], (*data)[6], 0});
        }
    }

    ComponentDescription& component(std::uint8_t id) {
        auto& all = flash().components;
        const auto found =
            std::find_if(all.begin(), all.end(), [&](const auto& one) { return one.id == id; });
        if (found != all.end()) {
            return *found;
        }
        ComponentDescription added;
        added.id = id;
        added.type = id == 0 ? ComponentType::firmware : ComponentType::configuration;
        return *all.insert(
            std::find_if(all.begin(), all.end(), [&](const auto& one) { return one.id > id; }),
            added);
    }

    void take_levels() {
        bool answered = false;
        bool refused = true;
        bool is_early = true;
        std::optional<Version> told_level;
        for (const Step& step : told_.steps) {
            if (step.kind == CommandKind::record) {
                is_early = false;
            }
            for (const ToldReport& report : step.reports) {
                const bool level =
                    has_flags(report, status_flag::completed | status_flag::ec_level);
                if (step.kind == CommandKind::level_or_stop && is_early && !told_level && level) {
                    told_level =
                        Version{report.bytes.at(2), report.bytes.at(1), report.bytes.at(5)};
                    flash().previous = {report.bytes.at(4), report.bytes.at(3), report.bytes.at(6)};
                }
                if (step.kind == CommandKind::level_or_stop && !step.closes) {
                    answered = true;
                    refused = refused && has_flags(report, status_flag::reject);
                }
            }
        }
        flash().ec_level = !answered || !refused;
        if (!listed_) {
            for (const auto& [id, version] : versions_) {
                component(id).version = version;
            }
        }
        for (const auto& [id, told] : told_.levels) {
            Version version;
            if (id <= highest_component &&
                (!listed_ || changed_.contains(static_cast<std::uint8_t>(id))) &&
                parse_level(told.level, version)) {
                version.build = static_cast<std::uint8_t>(told.build);
                component(static_cast<std::uint8_t>(id)).version = version;
            }
        }
        const bool has_main = std::any_of(flash().components.begin(), flash().components.end(),
                                          [](const auto& one) { return one.id == 0; });
        ComponentDescription& main = component(0);
        if (told_level && !listed_) {
            main.version = *told_level;
        }
        if (!told_level && !has_main) {
            remark("the level of component 0: 00.00");
        }
        const Version& version = main.version;
        guess_.device.bcd = static_cast<std::uint16_t>(
            told_.reports.bcd.value_or(version.major * 256U + version.minor));
        if (!told_.reports.bcd) {
            remark("the device version: the level of component 0");
        }
    }

    void take_reports() {
        bool feature = false;
        bool older = false;
        for (const Step& step : told_.steps) {
            for (const ToldData& data : step.data) {
                feature |= data.bytes && data.usage == 0xA003;
                older |= data.bytes && data.usage == 0x1603;
            }
        }
        flash().feature_usage = older && !feature ? 0x1603 : 0xA003;
        const ToldReports& reports = told_.reports;
        const auto fits = [](std::optional<unsigned> size, unsigned least, unsigned most) {
            return size && *size >= least && *size <= most;
        };
        InterfaceDescription interface;
        interface.kind = InterfaceKind::flash;
        interface.in_packet = 64;
        if (fits(reports.interface, 0, 31)) {
            interface.number = static_cast<std::uint8_t>(*reports.interface);
        }
        if (fits(reports.in_packet, 8, 64)) {
            interface.in_packet = static_cast<std::uint8_t>(*reports.in_packet);
        }
        if (fits(reports.output, 8, 1024)) {
            flash().output_size = static_cast<std::uint16_t>(*reports.output);
            flash().report_ids = reports.ids;
        }
        if (fits(reports.feature, 8, 1024)) {
            flash().feature_size = static_cast<std::uint16_t>(*reports.feature);
        }
        if (!reports.output || !reports.feature) {
            remark("the sizes of the reports: 263 bytes to the device, 261 from it, no report IDs");
            remark("the interface number: 0; its packet size: 64");
        }
        if (reports.port.value_or(0) == 0) {
            remark("the port: the lowest free one");
        }
        guess_.device.interfaces.push_back(interface);
    }

    static Duration duration(double milliseconds) {
        return Duration(std::llround(std::clamp(milliseconds, 0.0, 600000.0) * 1000));
    }

    void take_time(Duration& time, const char* name, std::initializer_list<CommandKind> kinds) {
        if (const auto wait = median_wait(told_, kinds)) {
            time = duration(*wait);
        } else {
            remark(std::string("how long ") + name + " takes");
        }
    }

    void take_times() {
        Timing& timing = guess_.device.timing;
        take_time(
            timing.query, "a query",
            {CommandKind::level_or_stop, CommandKind::extended_list, CommandKind::component_list,
             CommandKind::component_version, CommandKind::read_records, CommandKind::device_info});
        take_time(timing.erase, "erasing", {CommandKind::erase});
        take_time(timing.record, "a record", {CommandKind::record});
        take_time(timing.checksum, "the checksum", {CommandKind::checksum});
        // Away at least until somebody looked for it in vain, and no longer than until it was
        // found.
        bool reset = false;
        double since = 0;
        for (std::size_t i = 0, sighted = 0; i <= told_.steps.size(); ++i) {
            for (; sighted < told_.sightings.size() && told_.sightings[sighted].step <= i;
                 ++sighted) {
                const Sighting& sighting = told_.sightings[sighted];
                const double away = sighting.clock - since;
                if (!reset) {
                    continue;
                }
                if (sighting.kind == Sighting::Kind::missing) {
                    timing.reset = std::max(timing.reset, duration(away + 1000));
                } else if (sighting.kind == Sighting::Kind::listed) {
                    timing.reset = std::min(timing.reset, duration(away * 0.9));
                    reset = false;
                }
            }
            if (i < told_.steps.size() && told_.steps[i].kind == CommandKind::reset) {
                reset = true;
                since = told_.steps[i].clock;
            }
        }
        remark("how long a reset device stays away");
    }

    const ToldDevice& told_;
    DeviceGuess guess_;
    std::optional<std::uint8_t> features_;
    std::map<std::uint8_t, Version> versions_;
    std::set<std::uint8_t> changed_;
    bool listed_ = false;
};

}  // namespace

DeviceGuess guess_device(const ToldDevice& told) {
    return Guesser(told).run();
}

}  // namespace zelfsim
