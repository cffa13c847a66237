/// \file
/// Bus files of the tests: devices whose times are short, and their faults.
#pragma once

#include <string>
#include <vector>

struct SimComponent {
    int id = 0;
    std::string level = "01.02";
    int build = 0;
    std::string control = "increasing";
    std::string type = "firmware";
};

struct SimDevice {
    std::string name = "printer";
    unsigned int product = 0x3C35;
    std::string serial = "PR0001";  ///< empty: none
    std::vector<SimComponent> components = {{}};
    unsigned int vendor = 0x7A01;
    std::string device_keys{};     ///< further lines of the device
    std::string interface_keys{};  ///< further lines of the flash interface
};

/// With components 0 and 1.
SimDevice two_components();

/// `[timing]` with times that keep a test quick.
std::string quick_timing();

std::string device_text(const SimDevice& device);

/// `[[fault]]`; `keys` are its further lines, such as "number = 3".
std::string fault_text(const std::string& device, const std::string& at, const std::string& action,
                       const std::string& keys = "");

/// A whole bus file: quick times, the devices, then `further` text.
std::string bus_text(const std::vector<SimDevice>& devices, const std::string& further = "");
