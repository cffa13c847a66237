/// \file
/// Bytes as lower-case hexadecimal text without separators, as the transfer record shows them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

std::string to_hex(std::string_view bytes);

/// The bytes of hexadecimal digits; blanks are skipped. Throws on anything else.
std::string from_hex(std::string_view text);

/// Each text with the prefix in front.
std::vector<std::string> with_prefix(const std::string& prefix, std::vector<std::string> texts);
