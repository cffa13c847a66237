/// \file
/// Hexadecimal digits in texts that people write.
#pragma once

namespace zelf {

/// 0 to 15 for a digit, in either case; -1 for any other character.
constexpr int hex_digit(char character) {
    if (character >= '0' && character <= '9') {
        return character - '0';
    }
    if (character >= 'a' && character <= 'f') {
        return character - 'a' + 10;
    }
    if (character >= 'A' && character <= 'F') {
        return character - 'A' + 10;
    }
    return -1;
}

}  // namespace zelf
