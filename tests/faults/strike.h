/// \file
/// Where in a run a fault struck, by the record of the bus.
#pragma once

#include "injection.h"
#include "workplace.h"

#include <cstddef>

/// Which opening of the device a moment of an update belongs to. Each pass enumerates the devices,
/// opens each for its information, and then for its update.
namespace opening {
constexpr int first_enumeration = 1, first_information = 2, first_update = 3;
constexpr int second_enumeration = 4, second_information = 5, second_update = 6;
}  // namespace opening

struct Strike {
    bool has_struck = false;
    std::size_t at = 0;  ///< the fault's line in the record
    int opening = 0;     ///< of the device, counted from 1
    bool leaves_device_gone = false;
};

Strike find_strike(const TransferRecord& record, const Injection& injection);

/// Whether the line is a message to the device that carries a part of the target's image.
bool carries(const Transfer& transfer, const Target& target);
bool has_sent_image(const TransferRecord& record, const Target& target);
/// The line that carries the target's checksum; the record's size when there is none.
std::size_t find_checksum(const TransferRecord& record, const Target& target);
/// Whether the fault struck the message that carries the target's checksum. A status that another
/// thread reads may stand between the two lines.
bool struck_checksum(const TransferRecord& record, const Strike& strike, const Target& target);
int count_erases(const TransferRecord& record, const std::string& device);
int count_drops(const TransferRecord& record, const std::string& device, const std::string& reason);
