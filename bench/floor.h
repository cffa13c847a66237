/// \file
/// How long the protocol itself takes: the fixed sleeps, and 15 milliseconds for each answer. An
/// answer that is there before the program first looks for it saves them. All times in seconds.
#pragma once

namespace protocol_wait {
constexpr double reader_start = 0.100;  ///< after a reader thread was created
constexpr double answer_poll = 0.015;   ///< between two looks for an answer
constexpr double close_poll = 0.010;    ///< between two looks whether the reader has left
constexpr double before_erase = 0.010;
constexpr double after_reset = 4.000;  ///< before the second pass
}  // namespace protocol_wait

/// Device information, EC level and extended component list.
constexpr int queries_per_device = 3;

constexpr double opening_floor = protocol_wait::reader_start + protocol_wait::close_poll;

constexpr double list_floor(int devices) {
    return devices * (opening_floor + queries_per_device * protocol_wait::answer_poll);
}

/// An update of one device's main component: listed, updated, reset and listed again. Without the
/// device's own times. The records, the checksum and the erase command have an answer each.
constexpr double update_floor(int records) {
    return 2 * list_floor(1) + opening_floor + protocol_wait::before_erase +
           (records + 2) * protocol_wait::answer_poll + protocol_wait::after_reset;
}
