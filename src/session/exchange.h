/// \file
/// What the other files of the session need of the exchange beside its members.
#pragma once

#include "flash_protocol.h"

#include <cstdint>

class ZELFLASH;

/// `send_command` with `information_timeout`; `component` as `flash_command` takes it.
int send_query(ZELFLASH& session, FlashCommand command, int component, int index);

/// Byte 0 of the most recent good status report.
std::uint8_t last_status_flags(const ZELFLASH& session);
