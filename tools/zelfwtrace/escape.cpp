#include "zelfwtrace/escape.h"

#include "common/utf8.h"

namespace {

using zelf::character_length;

unsigned char byte_at(std::string_view text, std::size_t at) {
    return at < text.size() ? static_cast<unsigned char>(text[at]) : 0;
}

/// Control characters of ASCII, and U+0080 to U+009F.
bool is_control(std::string_view character) {
    const unsigned char lead = byte_at(character, 0);
    return lead < 0x20 || lead == 0x7F || (lead == 0xC2 && byte_at(character, 1) < 0xA0);
}

std::string escaped_control(char c) {
    switch (c) {
        case '\n':
            return "\\n";
        case '\t':
            return "\\t";
        case '\r':
            return "\\r";
        default:
            return "";
    }
}

}  // namespace

std::string hexadecimal(std::string_view bytes, std::string_view separator) {
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * (2 + separator.size()));
    for (const char c : bytes) {
        if (!text.empty()) {
            text += separator;
        }
        text += digits[static_cast<unsigned char>(c) >> 4];
        text += digits[static_cast<unsigned char>(c) & 0x0F];
    }
    return text;
}

std::string one_line(std::string_view text) {
    if (!text.empty() && text.back() == '\n') {
        text.remove_suffix(1);
    }
    std::string line;
    while (!text.empty()) {
        const std::size_t length = character_length(text);
        const std::string_view character = text.substr(0, length == 0 ? 1 : length);
        const std::string escaped = escaped_control(character.front());
        if (character == "\\") {
            line += "\\\\";
        } else if (!escaped.empty()) {
            line += escaped;
        } else if (length == 0 || is_control(character)) {
            for (const char c : character) {
                line += printed("\\x%02x", static_cast<unsigned char>(c));
            }
        } else {
            line += character;
        }
        text.remove_prefix(character.size());
    }
    return line;
}

std::string json_string(std::string_view text) {
    std::string json = "\"";
    while (!text.empty()) {
        const std::size_t length = character_length(text);
        const std::string_view character = text.substr(0, length == 0 ? 1 : length);
        const std::string escaped = escaped_control(character.front());
        if (character == "\\" || character == "\"") {
            json.append("\\").append(character);
        } else if (!escaped.empty()) {
            json += escaped;
        } else if (length == 0 || (length == 1 && is_control(character))) {
            json += printed("\\u%04x", byte_at(character, 0));
        } else {
            json += character;
        }
        text.remove_prefix(character.size());
    }
    return json + "\"";
}
