/// \file
/// The commands as they are sent.
#pragma once

#include "flash_protocol.h"

/// The bytes of a command; `component` (0 to 15) matters to the two commands that name one.
CommandMessage flash_command(FlashCommand command, int component = 0);
