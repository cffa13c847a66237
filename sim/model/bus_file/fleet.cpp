#include "model/bus_file/fleet.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <sstream>

namespace zelfsim {

namespace {

constexpr unsigned devices_per_bus = 96;
constexpr unsigned ports_per_hub = 7;
constexpr unsigned root_ports = 16;

/// One of the kinds of device that take turns.
struct Model {
    const char* name;
    unsigned vendor;
    unsigned product;
    const char* list;
    unsigned packet;
    unsigned components;
};

constexpr std::array<Model, 4> models{{
    {"printer", 0x7A01, 0x3C35, "extended", 64, 3},
    {"scanner", 0x7A02, 0x3C12, "plain", 8, 2},
    {"display", 0x7A03, 0x3C40, "extended", 64, 1},
    {"keyboard", 0x7A01, 0x3C02, "none", 8, 1},
}};

constexpr std::array<const char*, 3> fleet_types{"firmware", "configuration", "font"};

void write_hubs(std::ostream& out, unsigned count) {
    for (unsigned first = 0; first < count; first += devices_per_bus) {
        const unsigned bus = first / devices_per_bus + 1;
        const unsigned devices = std::min(count - first, devices_per_bus);
        out << "[[hub]]\nname = \"bus" << bus << "\"\nbus = " << bus << "\nports = " << root_ports
            << "\n\n";
        for (unsigned hub = 0; hub * ports_per_hub < devices; ++hub) {
            out << "[[hub]]\nname = \"hub" << bus << "-" << hub + 1 << "\"\nhub = \"bus" << bus
                << "\"\nports = " << ports_per_hub << "\n\n";
        }
    }
}

void write_device(std::ostream& out, unsigned number) {
    const Model& model = models[number % models.size()];
    const unsigned bus = number / devices_per_bus + 1;
    const unsigned place = number % devices_per_bus;
    std::array<char, 16> id{};
    std::snprintf(id.data(), id.size(), "%04u", number + 1);
    std::array<char, 80> head{};
    std::snprintf(head.data(), head.size(), "vendor = 0x%04X\nproduct = 0x%04X\n", model.vendor,
                  model.product);
    out << "[[device]]\nname = \"" << model.name << "-" << id.data() << "\"\nhub = \"hub" << bus
        << "-" << place / ports_per_hub + 1 << "\"\nport = " << place % ports_per_hub + 1 << "\n"
        << head.data() << "serial = \"SN" << id.data() << "\"\n\n[[device.interface]]\n"
        << "kind = \"flash\"\nlist = \"" << model.list << "\"\nin_packet = " << model.packet
        << "\n\n";
    for (unsigned component = 0; component < model.components; ++component) {
        out << "[[device.interface.component]]\nid = " << component << "\nlevel = \"01.0"
            << number % 4 << "\"\ntype = \"" << fleet_types[component] << "\"\n\n";
    }
}

}  // namespace

std::string fleet(unsigned count) {
    std::ostringstream out;
    out << "# " << count << " peripherals, made by: zelfwsim generate " << count << "\n\n"
        << "[timing]\ntransfer_ms = 0.1\nquery_ms = 0.5\nerase_ms = 20\nrecord_ms = 0.5\n"
        << "checksum_ms = 5\nreset_ms = 500\n\n";
    write_hubs(out, count);
    for (unsigned number = 0; number < count; ++number) {
        write_device(out, number);
    }
    return out.str();
}

}  // namespace zelfsim
