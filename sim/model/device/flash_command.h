/// \file
/// The command messages of the flash interface, as the device reads them.
#pragma once

#include "model/bus_file/fault.h"
#include "model/device/basics.h"

#include <cstdint>

namespace zelfsim {

enum class CommandKind {
    unknown,  ///< also what is malformed
    status_request,
    reset,
    level_or_stop,  ///< one message; the state of the device tells which
    device_info,
    erase,
    record,
    checksum,
    component_version,
    component_list,
    extended_list,
    read_records,
};

/// Of a record, before its payload: tag and two value bytes.
constexpr std::size_t record_head = 3;

struct FlashCommand {
    CommandKind kind = CommandKind::unknown;
    std::uint8_t component = 0;  ///< of `component_version` and `read_records`
    ByteView record;             ///< tag, two value bytes, payload; inside the message
    std::uint16_t checksum = 0;
};

/// Reads one message; bytes after its end are padding. `record` points into `message`.
FlashCommand parse_command(ByteView message);

/// The fault event of a command. `stoppable` when the device would take the stop command as such.
FaultEvent command_event(CommandKind kind, bool stoppable);

}  // namespace zelfsim
