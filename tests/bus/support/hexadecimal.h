/// \file
/// Bytes as lower-case hexadecimal text without separators, as the transfer record shows them.
#pragma once

#include <string>
#include <string_view>

std::string to_hex(std::string_view bytes);

/// The bytes of hexadecimal digits; blanks are skipped. Throws on anything else.
std::string from_hex(std::string_view text);
