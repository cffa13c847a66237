#include "model/bus_file/bus_file_device.h"

#include "model/device/descriptors.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

namespace zelfsim {

namespace {

constexpr std::size_t longest_string = 126;
constexpr std::int64_t smallest_packet = 8;
constexpr std::int64_t largest_packet = 64;
constexpr std::int64_t smallest_report = 8;
constexpr std::int64_t largest_report = 1024;
constexpr std::uint16_t data_usage = 0xA003;
constexpr std::uint16_t old_data_usage = 0x1603;

constexpr std::array<std::string_view, 12> device_keys{
    "name",   "hub",          "port",         "address", "vendor",    "product",
    "serial", "manufacturer", "product_name", "timing",  "interface", "bcd"};
constexpr std::array<std::string_view, 6> timing_keys{"transfer_ms", "query_ms",    "erase_ms",
                                                      "record_ms",   "checksum_ms", "reset_ms"};
constexpr std::array<std::string_view, 4> interface_keys{"kind", "number", "string", "driver"};
constexpr std::array<std::string_view, 3> hid_keys{"in_packet", "usage_page", "usage"};
constexpr std::array<std::string_view, 18> flash_keys{
    "in_packet",      "out_packet",   "report_ids",  "output_size", "feature_size",
    "feature_usage",  "list",         "device_info", "ec_level",    "read_records",
    "device_type",    "device_id",    "command_set", "features",    "previous_level",
    "previous_build", "reset_answer", "component"};
constexpr std::array<std::string_view, 7> component_keys{"id",   "name",    "level",  "build",
                                                         "type", "control", "records"};

template <typename Value>
using Choice = std::pair<std::string_view, Value>;

template <typename Value, std::size_t count>
Value choose(const zelf::TomlTable& table, std::string_view key,
             const std::array<Choice<Value>, count>& choices, std::string_view fallback) {
    constexpr std::size_t longest_choice = 32;
    const std::string text = table.text(key, longest_choice).value_or(std::string(fallback));
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
        table.integer(key, smallest_report, largest_report).value_or(fallback));
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
    constexpr std::int64_t highest_component = 14;
    constexpr std::size_t longest_name = 32;
    constexpr std::size_t level_length = 5;
    constexpr std::int64_t most_records = 1000;
    constexpr std::array<Choice<ComponentType>, 4> types{{
        {"unspecified", ComponentType::unspecified},
        {"firmware", ComponentType::firmware},
        {"configuration", ComponentType::configuration},
        {"font", ComponentType::font},
    }};
    constexpr std::array<Choice<bool>, 2> controls{{{"increasing", false}, {"random", true}}};

    table.know_only({component_keys});
    ComponentDescription component;
    component.id = static_cast<std::uint8_t>(table.required_integer("id", 0, highest_component));
    component.name =
        table.text("name", longest_name).value_or("Component " + std::to_string(component.id));
    component.version = level(table, "level", table.required_text("level", level_length));
    component.version.build = byte(table, "build", 0);
    component.type = choose(table, "type", types, "firmware");
    component.random = choose(table, "control", controls, "increasing");
    component.records = static_cast<unsigned>(
        table.integer("records", 0, most_records).value_or(component.records));
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
    constexpr std::size_t level_length = 5;
    constexpr std::array<Choice<ListKind>, 3> lists{{
        {"extended", ListKind::extended},
        {"plain", ListKind::plain},
        {"none", ListKind::none},
    }};
    constexpr std::array<Choice<bool>, 2> reset_answers{{{"ok", false}, {"gone", true}}};

    FlashDescription flash;
    flash.report_ids = table.flag("report_ids").value_or(false);
    flash.output_size = report_size(table, "output_size", flash.output_size);
    flash.feature_size = report_size(table, "feature_size", flash.feature_size);
    flash.feature_usage = word(table, "feature_usage", data_usage);
    if (flash.feature_usage != data_usage && flash.feature_usage != old_data_usage) {
        table.fail("feature_usage", "\"feature_usage\" must be 0xA003 or 0x1603");
    }
    flash.list = choose(table, "list", lists, "extended");
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
                           table.text("previous_level", level_length).value_or("00.00"));
    flash.previous.build = byte(table, "previous_build", 0);
    flash.reset_fails = choose(table, "reset_answer", reset_answers, "ok");
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
        table.integer("in_packet", smallest_packet, largest_packet).value_or(largest_packet));
    if (interface.kind == InterfaceKind::hid) {
        interface.usage_page = word(table, "usage_page", interface.usage_page);
        interface.usage = word(table, "usage", interface.usage);
        return;
    }
    if (device.flash) {
        table.fail("kind", "a device has one flash interface");
    }
    device.flash = read_flash(table);
    const auto out = table.integer("out_packet", 0, largest_packet).value_or(0);
    if (out != 0 && out < smallest_packet) {
        table.fail("out_packet", "\"out_packet\" must be 0 or 8 to 64");
    }
    interface.out_packet = static_cast<std::uint8_t>(out);
    if (device.flash->report_ids && interface.in_packet <= status_size) {
        table.fail("in_packet", "with report IDs \"in_packet\" must be 9 to 64");
    }
}

/// Refuses a key that goes with another kind of interface.
void know_keys_of(const zelf::TomlTable& table, InterfaceKind kind) {
    switch (kind) {
        case InterfaceKind::flash:
            table.know_only({interface_keys, flash_keys});
            break;
        case InterfaceKind::hid:
            table.know_only({interface_keys, hid_keys});
            break;
        default:
            table.know_only({interface_keys});
            break;
    }
}

InterfaceDescription read_interface(const zelf::TomlTable& table, std::size_t position,
                                    DeviceDescription& device) {
    constexpr std::int64_t highest_interface = 31;
    constexpr std::array<Choice<InterfaceKind>, 5> kinds{{
        {"flash", InterfaceKind::flash},
        {"keyboard", InterfaceKind::keyboard},
        {"mouse", InterfaceKind::mouse},
        {"storage", InterfaceKind::storage},
        {"hid", InterfaceKind::hid},
    }};
    table.know_only({interface_keys, hid_keys, flash_keys});
    InterfaceDescription interface;
    interface.kind = choose(table, "kind", kinds, "");
    know_keys_of(table, interface.kind);
    interface.number =
        static_cast<std::uint8_t>(table.integer("number", 0, highest_interface)
                                      .value_or(static_cast<std::int64_t>(position)));
    const bool flash = interface.kind == InterfaceKind::flash;
    interface.text =
        table.text("string", longest_string).value_or(flash ? "Usage=A000 Usage Page=FF45" : "");
    interface.driver = table.flag("driver").value_or(true);
    read_kind(table, interface, device);
    return interface;
}

void read_interfaces(const zelf::TomlTable& table, DeviceDescription& device) {
    // Each interface takes an endpoint number of its own, and there are 15.
    constexpr std::size_t most_interfaces = 15;
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
    if (device.interfaces.empty() || device.interfaces.size() > most_interfaces) {
        table.fail("interface", "a device needs 1 to 15 interfaces");
    }
}

}  // namespace

Timing read_timing(const zelf::TomlTable& table, const Timing& base) {
    table.know_only({timing_keys});
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
    table.know_only({device_keys});
}

void read_device(const zelf::TomlTable& table, const Timing& timing, DeviceDescription& device) {
    device.vendor = static_cast<std::uint16_t>(table.required_integer("vendor", 0, 0xFFFF));
    device.product = static_cast<std::uint16_t>(table.required_integer("product", 0, 0xFFFF));
    device.serial = table.text("serial", longest_string).value_or("");
    device.manufacturer = table.text("manufacturer", longest_string).value_or("Simulated");
    device.product_name = table.text("product_name", longest_string).value_or(device.name);
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
