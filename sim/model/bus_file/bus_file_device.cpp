#include "model/bus_file/bus_file_device.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

namespace zelfsim {

namespace {

constexpr std::size_t kLongestString = 126;
constexpr std::int64_t kSmallestPacket = 8;
constexpr std::int64_t kLargestPacket = 64;
constexpr std::int64_t kSmallestReport = 8;
constexpr std::int64_t kLargestReport = 1024;
constexpr std::uint16_t kDataUsage = 0xA003;
constexpr std::uint16_t kOldDataUsage = 0x1603;
constexpr std::uint8_t kStatusSize = 8;

constexpr std::array<std::string_view, 12> kDeviceKeys{
    "name",   "hub",          "port",         "address", "vendor",    "product",
    "serial", "manufacturer", "product_name", "timing",  "interface", "bcd"};
constexpr std::array<std::string_view, 6> kTimingKeys{"transfer_ms", "query_ms",    "erase_ms",
                                                      "record_ms",   "checksum_ms", "reset_ms"};
constexpr std::array<std::string_view, 4> kInterfaceKeys{"kind", "number", "string", "driver"};
constexpr std::array<std::string_view, 3> kHidKeys{"in_packet", "usage_page", "usage"};
constexpr std::array<std::string_view, 18> kFlashKeys{
    "in_packet",      "out_packet",   "report_ids",  "output_size", "feature_size",
    "feature_usage",  "list",         "device_info", "ec_level",    "read_records",
    "device_type",    "device_id",    "command_set", "features",    "previous_level",
    "previous_build", "reset_answer", "component"};
constexpr std::array<std::string_view, 7> kComponentKeys{"id",   "name",    "level",  "build",
                                                         "type", "control", "records"};

template <typename Value>
using Choice = std::pair<std::string_view, Value>;

template <typename Value, std::size_t count>
Value choose(const zelf::TomlTable& table, std::string_view key,
             const std::array<Choice<Value>, count>& choices, std::string_view fallback) {
    constexpr std::size_t kLongestChoice = 32;
    const std::string text = table.text(key, kLongestChoice).value_or(std::string(fallback));
    std::string known;
    for (const auto& [name, value] : choices) {
        if (name == text) {
            return value;
        }
        known += (known.empty() ? "\"" : ", \"") + std::string(name) + "\"";
    }
    table.fail(key, "\"" + std::string(key) + "\" must be one of " + known);
}

std::uint8_t byte(const zelf::TomlTable& table, std::string_view key, std::uint8_t fallback) {
    return static_cast<std::uint8_t>(table.integer(key, 0, 0xFF).value_or(fallback));
}

std::uint16_t word(const zelf::TomlTable& table, std::string_view key, std::uint16_t fallback) {
    return static_cast<std::uint16_t>(table.integer(key, 0, 0xFFFF).value_or(fallback));
}

std::uint16_t report_size(const zelf::TomlTable& table, std::string_view key,
                          std::uint16_t fallback) {
    return static_cast<std::uint16_t>(
        table.integer(key, kSmallestReport, kLargestReport).value_or(fallback));
}

Version level(const zelf::TomlTable& table, std::string_view key, const std::string& text) {
    Version version;
    if (!parse_level(text, version)) {
        table.fail(key,
                   "\"" + std::string(key) + "\" must be two hexadecimal bytes as in \"01.02\"");
    }
    return version;
}

ComponentDescription read_component(const zelf::TomlTable& table) {
    constexpr std::int64_t kHighestComponent = 14;
    constexpr std::size_t kLongestName = 32;
    constexpr std::size_t kLevelLength = 5;
    constexpr std::int64_t kMostRecords = 1000;
    constexpr std::array<Choice<ComponentType>, 4> kTypes{{
        {"unspecified", ComponentType::unspecified},
        {"firmware", ComponentType::firmware},
        {"configuration", ComponentType::configuration},
        {"font", ComponentType::font},
    }};
    constexpr std::array<Choice<bool>, 2> kControls{{{"increasing", false}, {"random", true}}};

    table.know_only({kComponentKeys});
    ComponentDescription component;
    component.id = static_cast<std::uint8_t>(table.required_integer("id", 0, kHighestComponent));
    component.name =
        table.text("name", kLongestName).value_or("Component " + std::to_string(component.id));
    component.version = level(table, "level", table.required_text("level", kLevelLength));
    component.version.build = byte(table, "build", 0);
    component.type = choose(table, "type", kTypes, "firmware");
    component.random = choose(table, "control", kControls, "increasing");
    component.records = static_cast<unsigned>(
        table.integer("records", 0, kMostRecords).value_or(component.records));
    return component;
}

void read_components(const zelf::TomlTable& table, FlashDescription& flash) {
    for (const zelf::TomlTable& entry : table.tables("component")) {
        ComponentDescription component = read_component(entry);
        const auto same = [&](const ComponentDescription& other) {
            return other.id == component.id;
        };
        if (std::any_of(flash.components.begin(), flash.components.end(), same)) {
            entry.fail("id", "component " + std::to_string(component.id) + " is there twice");
        }
        flash.components.push_back(std::move(component));
    }
    std::sort(flash.components.begin(), flash.components.end(),
              [](const auto& left, const auto& right) { return left.id < right.id; });
    if (flash.components.empty() || flash.components.front().id != 0) {
        table.fail("component", "a flash interface needs component 0");
    }
}

FlashDescription read_flash(const zelf::TomlTable& table) {
    constexpr std::size_t kLevelLength = 5;
    constexpr std::array<Choice<ListKind>, 3> kLists{{
        {"extended", ListKind::extended},
        {"plain", ListKind::plain},
        {"none", ListKind::none},
    }};
    constexpr std::array<Choice<bool>, 2> kResetAnswers{{{"ok", false}, {"gone", true}}};

    FlashDescription flash;
    flash.report_ids = table.flag("report_ids").value_or(false);
    flash.output_size = report_size(table, "output_size", flash.output_size);
    flash.feature_size = report_size(table, "feature_size", flash.feature_size);
    flash.feature_usage = word(table, "feature_usage", kDataUsage);
    if (flash.feature_usage != kDataUsage && flash.feature_usage != kOldDataUsage) {
        table.fail("feature_usage", "\"feature_usage\" must be 0xA003 or 0x1603");
    }
    flash.list = choose(table, "list", kLists, "extended");
    flash.device_info = table.flag("device_info").value_or(true);
    flash.ec_level = table.flag("ec_level").value_or(true);
    flash.read_records = table.flag("read_records").value_or(true);
    flash.device_type = byte(table, "device_type", 1);
    flash.device_id = byte(table, "device_id", 1);
    flash.command_set = byte(table, "command_set", 1);
    if (table.has("features")) {
        flash.features = byte(table, "features", 0);
    }
    flash.previous = level(table, "previous_level",
                           table.text("previous_level", kLevelLength).value_or("00.00"));
    flash.previous.build = byte(table, "previous_build", 0);
    flash.reset_fails = choose(table, "reset_answer", kResetAnswers, "ok");
    read_components(table, flash);
    return flash;
}

/// Packet sizes and what else belongs to one kind of interface only.
void read_kind(const zelf::TomlTable& table, InterfaceDescription& interface,
               DeviceDescription& device) {
    if (interface.kind != InterfaceKind::flash && interface.kind != InterfaceKind::hid) {
        return;
    }
    interface.in_packet = static_cast<std::uint8_t>(
        table.integer("in_packet", kSmallestPacket, kLargestPacket).value_or(kLargestPacket));
    if (interface.kind == InterfaceKind::hid) {
        interface.usage_page = word(table, "usage_page", interface.usage_page);
        interface.usage = word(table, "usage", interface.usage);
        return;
    }
    if (device.flash) {
        table.fail("kind", "a device has one flash interface");
    }
    device.flash = read_flash(table);
    const auto out = table.integer("out_packet", 0, kLargestPacket).value_or(0);
    if (out != 0 && out < kSmallestPacket) {
        table.fail("out_packet", "\"out_packet\" must be 0 or 8 to 64");
    }
    interface.out_packet = static_cast<std::uint8_t>(out);
    if (device.flash->report_ids && interface.in_packet <= kStatusSize) {
        table.fail("in_packet", "with report IDs \"in_packet\" must be 9 to 64");
    }
}

/// Refuses a key that goes with another kind of interface.
void know_keys_of(const zelf::TomlTable& table, InterfaceKind kind) {
    switch (kind) {
        case InterfaceKind::flash:
            table.know_only({kInterfaceKeys, kFlashKeys});
            break;
        case InterfaceKind::hid:
            table.know_only({kInterfaceKeys, kHidKeys});
            break;
        default:
            table.know_only({kInterfaceKeys});
            break;
    }
}

InterfaceDescription read_interface(const zelf::TomlTable& table, std::size_t position,
                                    DeviceDescription& device) {
    constexpr std::int64_t kHighestInterface = 31;
    constexpr std::array<Choice<InterfaceKind>, 5> kKinds{{
        {"flash", InterfaceKind::flash},
        {"keyboard", InterfaceKind::keyboard},
        {"mouse", InterfaceKind::mouse},
        {"storage", InterfaceKind::storage},
        {"hid", InterfaceKind::hid},
    }};
    table.know_only({kInterfaceKeys, kHidKeys, kFlashKeys});
    InterfaceDescription interface;
    interface.kind = choose(table, "kind", kKinds, "");
    know_keys_of(table, interface.kind);
    interface.number =
        static_cast<std::uint8_t>(table.integer("number", 0, kHighestInterface)
                                      .value_or(static_cast<std::int64_t>(position)));
    const bool flash = interface.kind == InterfaceKind::flash;
    interface.text =
        table.text("string", kLongestString).value_or(flash ? "Usage=A000 Usage Page=FF45" : "");
    interface.driver = table.flag("driver").value_or(true);
    read_kind(table, interface, device);
    return interface;
}

void read_interfaces(const zelf::TomlTable& table, DeviceDescription& device) {
    // Each interface takes an endpoint number of its own, and there are 15.
    constexpr std::size_t kMostInterfaces = 15;
    for (const zelf::TomlTable& entry : table.tables("interface")) {
        InterfaceDescription interface = read_interface(entry, device.interfaces.size(), device);
        for (const InterfaceDescription& other : device.interfaces) {
            if (other.number == interface.number) {
                entry.fail("number",
                           "interface " + std::to_string(interface.number) + " is there twice");
            }
        }
        device.interfaces.push_back(std::move(interface));
    }
    if (device.interfaces.empty() || device.interfaces.size() > kMostInterfaces) {
        table.fail("interface", "a device needs 1 to 15 interfaces");
    }
}

}  // namespace

Timing read_timing(const zelf::TomlTable& table, const Timing& base) {
    table.know_only({kTimingKeys});
    Timing timing;
    timing.transfer = table.milliseconds("transfer_ms").value_or(base.transfer);
    timing.query = table.milliseconds("query_ms").value_or(base.query);
    timing.erase = table.milliseconds("erase_ms").value_or(base.erase);
    timing.record = table.milliseconds("record_ms").value_or(base.record);
    timing.checksum = table.milliseconds("checksum_ms").value_or(base.checksum);
    timing.reset = table.milliseconds("reset_ms").value_or(base.reset);
    return timing;
}

void know_device_keys(const zelf::TomlTable& table) {
    table.know_only({kDeviceKeys});
}

void read_device(const zelf::TomlTable& table, const Timing& timing, DeviceDescription& device) {
    device.vendor = static_cast<std::uint16_t>(table.required_integer("vendor", 0, 0xFFFF));
    device.product = static_cast<std::uint16_t>(table.required_integer("product", 0, 0xFFFF));
    device.serial = table.text("serial", kLongestString).value_or("");
    device.manufacturer = table.text("manufacturer", kLongestString).value_or("Simulated");
    device.product_name = table.text("product_name", kLongestString).value_or(device.name);
    device.timing = timing;
    if (const auto own = table.table("timing")) {
        device.timing = read_timing(*own, timing);
    }
    read_interfaces(table, device);
    if (device.flash) {
        const Version& main = device.flash->components.front().version;
        device.bcd = static_cast<std::uint16_t>(main.major * 256 + main.minor);
    }
    device.bcd = word(table, "bcd", device.bcd);
}

}  // namespace zelfsim
