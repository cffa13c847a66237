/// \file
/// Where in a run a fault struck, by the record of the bus.
#pragma once

#include "injection.h"
#include "workplace.h"

#include <cstddef>
#include <optional>
#include <string>

/// Which opening of the device a moment of an update belongs to. Each pass enumerates the devices,
/// opens each for its information, and then for its update.
namespace opening {
constexpr int first_enumeration = 1, first_information = 2, first_update = 3;
constexpr int second_enumeration = 4, second_information = 5, second_update = 6;
}  // namespace opening

struct Strike {
    bool has_struck = false;
    std::size_t fault_line = 0;  ///< in the record
    std::size_t at = 0;  ///< the same, but of an unasked report the line in which it is read
    int opening = 0;     ///< of the device, counted from 1
    bool leaves_device_gone = false;
    bool meets_next = false;  ///< of an answer that is to meet the next command
};

/// An unasked report strikes when it is read, an answer that meets the next command only when that
/// has been sent before it came.
Strike find_strike(const TransferRecord& record, const Injection& injection);

/// From the command whose answer stayed away to the device's next one, in whole milliseconds,
/// rounded up; none when there is none.
std::optional<int> gap_behind_fault(const TransferRecord& record, const std::string& device);

/// Whether the line is a message to the device that carries a part of the target's image.
bool carries(const Transfer& transfer, const Target& target);
/// Whether the message carries some target's checksum.
bool is_checksum(const std::string& message);
bool has_sent_image(const TransferRecord& record, const Target& target);
/// The line that carries the target's checksum; the record's size when there is none.
std::size_t find_checksum(const TransferRecord& record, const Target& target);
/// Whether the fault struck the message that carries the target's checksum. A status that another
/// thread reads may stand between the two lines.
bool struck_checksum(const TransferRecord& record, const Strike& strike, const Target& target);
/// Whether, before a message of the target's image or the one behind it, more reports had come than
/// messages had been sent since the erase. A report counts only when it came so many milliseconds
/// before the message.
bool has_visible_surplus(const TransferRecord& record, const Target& target, double margin);
int count_erases(const TransferRecord& record, const std::string& device);
int count_drops(const TransferRecord& record, const std::string& device, const std::string& reason);
