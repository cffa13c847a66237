#include "zelfwtrace/escape.h"

#include <cstdarg>
#include <cstdio>

namespace {

constexpr std::size_t longest_printed = 1024;

unsigned char byte_at(std::string_view text, std::size_t at) {
    return at < text.size() ? static_cast<unsigned char>(text[at]) : 0;
}

/// Bytes of the well-formed UTF-8 character in front; 0 when there is none.
std::size_t character_length(std::string_view text) {
    const unsigned char lead = byte_at(text, 0);
    if (lead < 0x80) {
        return text.empty() ? 0 : 1;
    }
    if (lead < 0xC2 || lead > 0xF4) {
        return 0;
    }
    // The second byte tells too long a form, a surrogate, and what is past the last character.
    const unsigned char lowest = lead == 0xE0 ? 0xA0 : (lead == 0xF0 ? 0x90 : 0x80);
    const unsigned char highest = lead == 0xED ? 0x9F : (lead == 0xF4 ? 0x8F : 0xBF);
    if (byte_at(text, 1) < lowest || byte_at(text, 1) > highest) {
        return 0;
    }
    const std::size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    for (std::size_t i = 2; i < length; ++i) {
        if ((byte_at(text, i) & 0xC0) != 0x80) {
            return 0;
        }
    }
    return length;
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

std::string printed(const char* format, ...) {
    char text[longest_printed];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    return text;
}

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
