#include "model/bus_file/bus_file.h"

#include "common/toml_table.h"
#include "model/bus_file/bus_file_device.h"
#include "model/bus_file/bus_file_fault.h"

#include <algorithm>
#include <array>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

namespace zelfsim {

namespace {

constexpr std::uint8_t root_address = 1;
constexpr std::uint8_t highest_address = 127;
constexpr std::uint16_t root_hub_vendor = 0x1D6B;
constexpr std::uint16_t root_hub_product = 0x0002;
constexpr std::uint16_t hub_vendor = 0x7AFF;
constexpr std::uint16_t hub_product = 0x0101;

constexpr std::array<std::string_view, 4> top_keys{"timing", "hub", "device", "fault"};
constexpr std::array<std::string_view, 8> hub_keys{"name",    "bus",   "hub",    "port",
                                                   "address", "ports", "vendor", "product"};

/// A bus being put together.
class Assembly {
  public:
    BusDescription result;

    void add_hub(const zelf::TomlTable& table);
    void add_implied_root();
    void add_device(const zelf::TomlTable& table, const Timing& timing);
    void add_fault(const zelf::TomlTable& table);
    void assign_addresses(const std::string& file);

  private:
    std::string take_name(const zelf::TomlTable& table);
    void place(const zelf::TomlTable& table, DeviceDescription& device);
    std::uint8_t take_port(const zelf::TomlTable& table, std::size_t hub);
    void take_address(const zelf::TomlTable& table, DeviceDescription& device);
    std::size_t find_hub(const zelf::TomlTable& table, const std::string& name) const;

    std::set<std::string> names_;
    std::map<std::size_t, std::set<std::uint8_t>> ports_;       // of each hub
    std::map<std::uint8_t, std::set<std::uint8_t>> addresses_;  // on each bus
};

std::string Assembly::take_name(const zelf::TomlTable& table) {
    constexpr std::size_t longest_name = 64;
    constexpr std::string_view allowed =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
    std::string name = table.required_text("name", longest_name);
    if (name.empty() || name.front() == '.' ||
        name.find_first_not_of(allowed) != std::string::npos) {
        table.fail("name",
                   "a name consists of letters, digits, '.', '_' and '-', and does not "
                   "begin with '.'");
    }
    if (!names_.insert(name).second) {
        table.fail("name", "the name \"" + name + "\" is used twice");
    }
    return name;
}

std::size_t Assembly::find_hub(const zelf::TomlTable& table, const std::string& name) const {
    for (std::size_t index = 0; index < result.devices.size(); ++index) {
        if (result.devices[index].is_hub && result.devices[index].name == name) {
            return index;
        }
    }
    table.fail("hub", "there is no hub \"" + name + "\" above this line");
}

std::uint8_t Assembly::take_port(const zelf::TomlTable& table, std::size_t hub) {
    const DeviceDescription& parent = result.devices[hub];
    std::set<std::uint8_t>& used = ports_[hub];
    if (const auto port = table.integer("port", 1, parent.ports)) {
        const auto number = static_cast<std::uint8_t>(*port);
        if (!used.insert(number).second) {
            table.fail("port", "port " + std::to_string(number) + " of \"" + parent.name +
                                   "\" is used twice");
        }
        return number;
    }
    for (std::uint8_t number = 1; number <= parent.ports; ++number) {
        if (used.insert(number).second) {
            return number;
        }
    }
    table.fail("name", "\"" + parent.name + "\" has no free port");
}

void Assembly::place(const zelf::TomlTable& table, DeviceDescription& device) {
    constexpr std::size_t longest_name = 64;
    const auto name = table.text("hub", longest_name);
    device.parent = name ? find_hub(table, *name) : 0;
    device.bus = result.devices[*device.parent].bus;
    device.port = take_port(table, *device.parent);
}

void Assembly::take_address(const zelf::TomlTable& table, DeviceDescription& device) {
    if (const auto address = table.integer("address", root_address + 1, highest_address)) {
        device.address = static_cast<std::uint8_t>(*address);
        if (!addresses_[device.bus].insert(device.address).second) {
            table.fail("address", "address " + std::to_string(device.address) + " is used twice");
        }
    }
}

DeviceDescription hub_defaults(bool root) {
    DeviceDescription hub;
    hub.is_hub = true;
    hub.vendor = root ? root_hub_vendor : hub_vendor;
    hub.product = root ? root_hub_product : hub_product;
    hub.manufacturer = "Simulated";
    hub.product_name = root ? "Root hub" : "Hub";
    InterfaceDescription interface;
    interface.kind = InterfaceKind::hub;
    interface.in_packet = 1;
    hub.interfaces.push_back(interface);
    return hub;
}

void Assembly::add_hub(const zelf::TomlTable& table) {
    constexpr std::int64_t most_ports = 127;
    table.know_only({hub_keys});
    const bool root = table.has("bus");
    if (root == table.has("hub")) {
        table.fail("name", "a hub has either \"bus\" (a root hub) or \"hub\" (its parent)");
    }
    DeviceDescription hub = hub_defaults(root);
    hub.name = take_name(table);
    if (root) {
        hub.bus = static_cast<std::uint8_t>(table.required_integer("bus", 1, 255));
        hub.address = root_address;
        if (!addresses_[hub.bus].insert(root_address).second) {
            table.fail("bus", "bus " + std::to_string(hub.bus) + " has two root hubs");
        }
    } else {
        place(table, hub);
        take_address(table, hub);
    }
    hub.ports = static_cast<std::uint8_t>(table.integer("ports", 1, most_ports).value_or(4));
    hub.vendor =
        static_cast<std::uint16_t>(table.integer("vendor", 0, 0xFFFF).value_or(hub.vendor));
    hub.product =
        static_cast<std::uint16_t>(table.integer("product", 0, 0xFFFF).value_or(hub.product));
    result.devices.push_back(std::move(hub));
}

void Assembly::add_implied_root() {
    constexpr std::uint8_t most_ports = 16;
    DeviceDescription hub = hub_defaults(true);
    hub.name = "root";
    hub.address = root_address;
    hub.ports = most_ports;
    names_.insert(hub.name);
    addresses_[hub.bus].insert(root_address);
    result.devices.push_back(std::move(hub));
}

void Assembly::add_device(const zelf::TomlTable& table, const Timing& timing) {
    know_device_keys(table);
    DeviceDescription device;
    device.name = take_name(table);
    place(table, device);
    take_address(table, device);
    read_device(table, timing, device);
    result.devices.push_back(std::move(device));
}

void Assembly::add_fault(const zelf::TomlTable& table) {
    constexpr std::size_t longest_name = 64;
    know_fault_keys(table);
    const std::string name = table.required_text("device", longest_name);
    const auto device =
        std::find_if(result.devices.begin(), result.devices.end(),
                     [&](const DeviceDescription& entry) { return entry.name == name; });
    if (device == result.devices.end()) {
        table.fail("device", "there is no device \"" + name + "\"");
    }
    FaultRule rule = read_fault(table);
    for (const FaultRule& other : device->faults) {
        if (other.key() == rule.key()) {
            table.fail("at", "the fault " + rule.key() + " of \"" + name + "\" is there twice");
        }
    }
    device->faults.push_back(std::move(rule));
}

void Assembly::assign_addresses(const std::string& file) {
    for (DeviceDescription& device : result.devices) {
        if (device.address != 0) {
            continue;
        }
        std::set<std::uint8_t>& used = addresses_[device.bus];
        std::uint8_t address = root_address + 1;
        while (address <= highest_address && used.contains(address)) {
            ++address;
        }
        if (address > highest_address) {
            throw FileError(file, 0,
                            "bus " + std::to_string(device.bus) + " has more than 127 devices");
        }
        used.insert(address);
        device.address = address;
    }
}

}  // namespace

BusDescription read_bus_file(const std::string& file) {
    const toml::table parsed = zelf::parse_toml_file(file);
    const zelf::TomlTable top(file, parsed);
    top.know_only({top_keys});
    Timing timing;
    if (const auto table = top.table("timing")) {
        timing = read_timing(*table, timing);
    }
    Assembly assembly;
    const std::vector<zelf::TomlTable> hubs = top.tables("hub");
    if (hubs.empty()) {
        assembly.add_implied_root();
    }
    for (const zelf::TomlTable& hub : hubs) {
        assembly.add_hub(hub);
    }
    for (const zelf::TomlTable& device : top.tables("device")) {
        assembly.add_device(device, timing);
    }
    for (const zelf::TomlTable& fault : top.tables("fault")) {
        assembly.add_fault(fault);
    }
    assembly.assign_addresses(file);
    return std::move(assembly.result);
}

}  // namespace zelfsim
