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

template <typename Value>
using Choice = std::pair<std::string_view, Value>;

template <typename Value, std::size_t count>
Value choose(zelf::TomlTable& table, std::string_view key,
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

std::uint8_t byte(zelf::TomlTable& table, std::string_view key, std::uint8_t fallback) {
    return static_cast<std::uint8_t>(table.integer(key, 0, 0xFF).value_or(fallback));
}

std::uint16_t word(zelf::TomlTable& table, std::string_view key, std::uint16_t fallback) {
    return static_cast<std::uint16_t>(table.integer(key, 0, 0xFFFF).value_or(fallback));
}

std::uint16_t report_size(zelf::TomlTable& table, std::string_view key, std::uint16_t fallback) {
    return static_cast<std::uint16_t>(
        table.integer(key, kSmallestReport, kLargestReport).value_or(fallback));
}

Version level(zelf::TomlTable& table, std::string_view key, const std::string& text) {
    Version version;
    if (!parse_level(text, version)) {
        table.fail(key,
                   "\"" + std::string(key) + "\" must be two hexadecimal bytes as in \"01.02\"");
    }
    return version;
}

ComponentDescription read_component(zelf::TomlTable& table) {
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
    table.finish();
    return component;
}

void read_components(zelf::TomlTable& table, FlashDescription& flash) {
    for (zelf::TomlTable& entry : table.tables("component")) {
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

FlashDescription read_flash(zelf::TomlTable& table) {
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
void read_kind(zelf::TomlTable& table, InterfaceDescription& interface, DeviceDescription& device) {
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

InterfaceDescription read_interface(zelf::TomlTable& table, std::size_t position,
                                    DeviceDescription& device) {
    constexpr std::int64_t kHighestInterface = 31;
    constexpr std::array<Choice<InterfaceKind>, 5> kKinds{{
        {"flash", InterfaceKind::flash},
        {"keyboard", InterfaceKind::keyboard},
        {"mouse", InterfaceKind::mouse},
        {"storage", InterfaceKind::storage},
        {"hid", InterfaceKind::hid},
    }};
    InterfaceDescription interface;
    interface.kind = choose(table, "kind", kKinds, "");
    interface.number =
        static_cast<std::uint8_t>(table.integer("number", 0, kHighestInterface)
                                      .value_or(static_cast<std::int64_t>(position)));
    const bool flash = interface.kind == InterfaceKind::flash;
    interface.text =
        table.text("string", kLongestString).value_or(flash ? "Usage=A000 Usage Page=FF45" : "");
    interface.driver = table.flag("driver").value_or(true);
    read_kind(table, interface, device);
    table.finish();
    return interface;
}

void read_interfaces(zelf::TomlTable& table, DeviceDescription& device) {
    // Each interface takes an endpoint number of its own, and there are 15.
    constexpr std::size_t kMostInterfaces = 15;
    for (zelf::TomlTable& entry : table.tables("interface")) {
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

Timing read_timing(zelf::TomlTable& table, const Timing& base) {
    Timing timing;
    timing.transfer = table.milliseconds("transfer_ms").value_or(base.transfer);
    timing.query = table.milliseconds("query_ms").value_or(base.query);
    timing.erase = table.milliseconds("erase_ms").value_or(base.erase);
    timing.record = table.milliseconds("record_ms").value_or(base.record);
    timing.checksum = table.milliseconds("checksum_ms").value_or(base.checksum);
    timing.reset = table.milliseconds("reset_ms").value_or(base.reset);
    table.finish();
    return timing;
}

void read_device(zelf::TomlTable& table, const Timing& timing, DeviceDescription& device) {
    device.vendor = static_cast<std::uint16_t>(table.required_integer("vendor", 0, 0xFFFF));
    device.product = static_cast<std::uint16_t>(table.required_integer("product", 0, 0xFFFF));
    device.serial = table.text("serial", kLongestString).value_or("");
    device.manufacturer = table.text("manufacturer", kLongestString).value_or("Simulated");
    device.product_name = table.text("product_name", kLongestString).value_or(device.name);
    device.timing = timing;
    if (auto own = table.table("timing")) {
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
