#include "support/hexadecimal.h"

#include <stdexcept>

namespace {

constexpr char digits[] = "0123456789abcdef";

}  // namespace

std::string to_hex(std::string_view bytes) {
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text += digits[byte >> 4U];
        text += digits[byte & 0x0FU];
    }
    return text;
}

std::string from_hex(std::string_view text) {
    std::string bytes;
    int high = -1;
    for (const char c : text) {
        if (c == ' ') {
            continue;
        }
        const auto digit = std::string_view(digits).find(c);
        if (digit == std::string_view::npos) {
            throw std::invalid_argument("not hexadecimal: " + std::string(text));
        }
        if (high < 0) {
            high = static_cast<int>(digit);
        } else {
            bytes += static_cast<char>(high * 16 + static_cast<int>(digit));
            high = -1;
        }
    }
    if (high >= 0) {
        throw std::invalid_argument("half a byte: " + std::string(text));
    }
    return bytes;
}

std::vector<std::string> with_prefix(const std::string& prefix, std::vector<std::string> texts) {
    for (std::string& text : texts) {
        text.insert(0, prefix);
    }
    return texts;
}
