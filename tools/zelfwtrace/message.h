/// \file
/// Names what the reports of the flash interface say.
#pragma once

#include "flash_protocol.h"

#include <optional>
#include <string>
#include <string_view>

/// A report that was sent to a device.
struct SentMessage {
    enum class Kind { command, image_record, checksum, unknown };

    Kind kind = Kind::unknown;
    const CommandRow* command = nullptr;  ///< of a command
    std::optional<int> component;         ///< that the message names
    std::string details;                  ///< what it carries; may be empty

    bool is(FlashCommand which) const { return command != nullptr && command->command == which; }
    /// "erase", "record", "checksum"...
    std::string name() const;
};

/// The bytes of the stop command and of the EC level query are the same: they are read as stop.
SentMessage read_sent_message(std::string_view report);

/// The words of a status report: "completed", "rejected", "completed, EC level 01.02"...
std::string status_words(std::string_view report);

/// The words of a data answer to `query`, null when no query is known.
std::string data_words(std::string_view report, const CommandRow* query);
