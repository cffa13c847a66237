#include "support/bus_text.h"

#include <sstream>

std::string quick_timing() {
    return "[timing]\n"
           "transfer_ms = 0\n"
           "query_ms = 1\n"
           "erase_ms = 20\n"
           "record_ms = 1\n"
           "checksum_ms = 5\n"
           "reset_ms = 300\n\n";
}

std::string device_text(const SimDevice& device) {
    std::ostringstream text;
    text << "[[device]]\nname = \"" << device.name << "\"\nvendor = " << device.vendor
         << "\nproduct = " << device.product << "\n";
    if (!device.serial.empty()) {
        text << "serial = \"" << device.serial << "\"\n";
    }
    text << device.device_keys << "\n[[device.interface]]\nkind = \"flash\"\n"
         << device.interface_keys << "\n";
    for (const SimComponent& component : device.components) {
        text << "[[device.interface.component]]\nid = " << component.id << "\nlevel = \""
             << component.level << "\"\nbuild = " << component.build << "\ntype = \""
             << component.type << "\"\ncontrol = \"" << component.control << "\"\n\n";
    }
    return text.str();
}

SimDevice two_components() {
    SimDevice device;
    device.components = {{}, {.id = 1}};
    return device;
}

std::string fault_text(const std::string& device, const std::string& at, const std::string& action,
                       const std::string& keys) {
    return "[[fault]]\ndevice = \"" + device + "\"\nat = \"" + at + "\"\naction = \"" + action +
           "\"\n" + keys + "\n";
}

std::string bus_text(const std::vector<SimDevice>& devices, const std::string& further) {
    std::string text = quick_timing();
    for (const SimDevice& device : devices) {
        text += device_text(device);
    }
    return text + further;
}
