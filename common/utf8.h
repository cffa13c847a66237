/// \file
/// Characters of UTF-8 text.
#pragma once

#include <cstddef>
#include <string_view>

namespace zelf {

/// Bytes of the well-formed UTF-8 character in front of `text`; 0 when there is none.
std::size_t character_length(std::string_view text);

/// The code point of a well-formed character.
char32_t code_point(std::string_view character);

}  // namespace zelf
