/// \file
/// What a bus file says: the devices as they leave the factory, and the faults they are to have.
#pragma once

#include "model/bus_file/fault.h"
#include "model/device/basics.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zelfsim {

struct Timing {
    Duration transfer{200};
    Duration query{1000};
    Duration erase{300000};
    Duration record{2000};
    Duration checksum{20000};
    Duration reset{1500000};
};

struct Version {
    std::uint8_t major = 0;
    std::uint8_t minor = 0;
    std::uint8_t build = 0;

    bool operator==(const Version&) const = default;
};

/// "01.02", as bus file and state write a level.
std::string level_text(const Version& version);
/// "01.02.03".
std::string version_text(const Version& version);
/// Reads "MM.mm" into major and minor; false when it is not of that form.
bool parse_level(const std::string& text, Version& version);

/// The values are those of the component lists' flags.
enum class ComponentType : std::uint8_t { unspecified, firmware, configuration, font };

struct ComponentDescription {
    std::uint8_t id = 0;
    std::string name;
    Version version;
    ComponentType type = ComponentType::firmware;
    bool random = false;   ///< version control: random instead of increasing
    unsigned records = 8;  ///< download records of the factory image
};

enum class ListKind { extended, plain, none };

struct FlashDescription {
    bool report_ids = false;
    std::uint16_t output_size = 263;
    std::uint16_t feature_size = 261;
    std::uint16_t feature_usage = 0xA003;
    ListKind list = ListKind::extended;
    bool device_info = true;
    bool ec_level = true;
    bool read_records = true;
    std::uint8_t device_type = 1;
    std::uint8_t device_id = 1;
    std::uint8_t command_set = 1;
    std::optional<std::uint8_t> features;
    Version previous;
    bool reset_fails = false;  ///< the reset command's own transfer finds the device gone
    std::vector<ComponentDescription> components;
};

enum class InterfaceKind { flash, keyboard, mouse, storage, hid, hub };

struct InterfaceDescription {
    InterfaceKind kind = InterfaceKind::hid;
    std::uint8_t number = 0;
    std::string text;
    bool driver = true;
    std::uint16_t usage_page = 0xFF00;
    std::uint16_t usage = 1;
    std::uint8_t in_packet = 8;
    std::uint8_t out_packet = 0;
};

/// A device or a hub.
struct DeviceDescription {
    std::string name;
    bool is_hub = false;
    std::uint8_t bus = 1;
    std::optional<std::size_t> parent;  ///< index of the hub it hangs on; none for a root hub
    std::uint8_t port = 0;              ///< of the parent, from 1
    std::uint8_t ports = 0;             ///< of a hub
    std::uint16_t vendor = 0;
    std::uint16_t product = 0;
    std::uint16_t bcd = 0x0100;
    std::string serial;
    std::string manufacturer;
    std::string product_name;
    std::uint8_t address = 0;
    Timing timing;
    std::vector<InterfaceDescription> interfaces;
    std::optional<FlashDescription> flash;  ///< of the interface with kind `flash`
    std::vector<FaultRule> faults;
};

/// Hubs first, each after its parent, then devices, both in the order of the file.
struct BusDescription {
    std::vector<DeviceDescription> devices;
};

}  // namespace zelfsim
