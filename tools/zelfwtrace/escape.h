/// \file
/// Texts of a trace made safe: they may hold what a device sent.
#pragma once

#include "common/printed.h"

#include <string>
#include <string_view>

using zelf::printed;

/// Lower-case hexadecimal, with `separator` between two bytes.
std::string hexadecimal(std::string_view bytes, std::string_view separator = "");

/// One line without control characters: a newline at the end is dropped, others and a backslash
/// are written "\n", "\t", "\\"; a byte that no character begins with, and every other control
/// character, as "\x1b".
std::string one_line(std::string_view text);

/// A JSON string with its quotes. A byte that is no part of well-formed UTF-8 is written \u00XX.
std::string json_string(std::string_view text);
