/// \file
/// The commands as they are sent.
#pragma once

#include "zelfwupdate/messages.h"

/// The bytes of a command; `component` (0 to 15) matters to the two commands that name one.
CommandMessage flash_command(FlashCommand command, int component = 0);
