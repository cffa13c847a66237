#include "common/utf8.h"

namespace zelf {

namespace {

unsigned char byte_at(std::string_view text, std::size_t at) {
    return at < text.size() ? static_cast<unsigned char>(text[at]) : 0;
}

constexpr unsigned char continuation_mask = 0xC0;
constexpr unsigned char continuation = 0x80;
constexpr unsigned continuation_bits = 6;

}  // namespace

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
        if ((byte_at(text, i) & continuation_mask) != continuation) {
            return 0;
        }
    }
    return length;
}

char32_t code_point(std::string_view character) {
    const unsigned char lead = byte_at(character, 0);
    if (character.size() < 2) {
        return lead;
    }
    // The lead byte of n bytes has n ones and a zero in front of its own bits.
    char32_t code = lead & (0x7FU >> character.size());
    for (std::size_t i = 1; i < character.size(); ++i) {
        code = code << continuation_bits | (byte_at(character, i) & ~continuation_mask & 0xFFU);
    }
    return code;
}

}  // namespace zelf
