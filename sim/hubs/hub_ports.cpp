#include "hubs/hub_ports.h"

#include "model/bus_file/bus_file.h"
#include "model/device/bus.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <mutex>
#include <string_view>

namespace zelfsim {

namespace {

std::string environment(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

/// The bus file of the environment, read once; null when there is none.
const BusDescription* bus() {
    static std::once_flag once;
    // Never freed: another thread may ask while the process ends.
    static BusDescription* description = nullptr;
    std::call_once(once, [] {
        const std::string file = environment("ZELFWSIM_BUS");
        if (file.empty()) {
            return;
        }
        try {
            description = std::make_unique<BusDescription>(read_bus_file(file)).release();
        } catch (const std::exception& error) {
            std::fprintf(stderr, "%s\n", error.what());
        }
    });
    return description;
}

/// The address a device has now; 0 while it is away.
unsigned present_address(const DeviceDescription& device) {
    DeviceState state = factory_state(device);
    const std::string directory = environment("ZELFWSIM_STATE");
    if (!directory.empty()) {
        DeviceStore(device_directory(directory, device.name)).load(state);
    }
    return state.unplugged || state.away_until > now() ? 0 : state.address;
}

/// The index of the device at a node; none when nothing is there.
std::optional<std::size_t> find(const BusDescription& description, const DeviceNode& node) {
    for (std::size_t index = 0; index < description.devices.size(); ++index) {
        const DeviceDescription& device = description.devices[index];
        if (device.bus == node.bus && present_address(device) == node.address) {
            return index;
        }
    }
    return std::nullopt;
}

HubPorts ports_of(const BusDescription& description, std::size_t hub) {
    HubPorts ports{};
    ports[0] = description.devices[hub].ports;
    for (const DeviceDescription& device : description.devices) {
        if (device.parent == hub) {
            ports.at(device.port) = static_cast<std::uint8_t>(present_address(device));
        }
    }
    return ports;
}

}  // namespace

std::optional<DeviceNode> parse_node(const char* path) {
    constexpr std::string_view prefix = "/proc/bus/usb/";
    constexpr std::size_t length = prefix.size() + 7;
    const std::string_view text = path != nullptr ? path : "";
    if (text.size() != length || !text.starts_with(prefix) || text[prefix.size() + 3] != '/') {
        return std::nullopt;
    }
    DeviceNode node;
    for (std::size_t at = prefix.size(); at < length; ++at) {
        unsigned& number = at < prefix.size() + 3 ? node.bus : node.address;
        if (at == prefix.size() + 3) {
            continue;
        }
        if (text[at] < '0' || text[at] > '9') {
            return std::nullopt;
        }
        number = number * 10 + static_cast<unsigned>(text[at] - '0');
    }
    return node;
}

bool node_present(const DeviceNode& node) {
    try {
        const BusDescription* description = bus();
        return description != nullptr && find(*description, node).has_value();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return false;
    }
}

std::optional<HubPorts> hub_ports(const DeviceNode& node) {
    try {
        const BusDescription* description = bus();
        const auto index = description != nullptr ? find(*description, node) : std::nullopt;
        if (!index || !description->devices[*index].is_hub) {
            return std::nullopt;
        }
        return ports_of(*description, *index);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return std::nullopt;
    }
}

}  // namespace zelfsim
