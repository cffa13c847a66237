#include "usb/flshusbintf_text.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int token_size = 30;

using Token = std::array<char, token_size>;

// Collects at most 29 characters while `wanted` holds; a NUL ends every token.
template <typename Wanted>
Token token_at(const char* text, int pos, Wanted wanted) {
    Token token{};
    for (int i = 0; i < token_size - 1 && text[pos] != '\0' && wanted(text[pos], pos); ++i) {
        token[static_cast<size_t>(i)] = text[pos++];
    }
    return token;
}

}  // namespace

int find_keyword_in(const char* keyword, const char* text, int len) {
    const size_t keyword_length = std::strlen(keyword);
    for (int i = 0; i <= len - 2; ++i) {
        if (std::strncmp(text + i, keyword, keyword_length) == 0) {
            return i + static_cast<int>(keyword_length);
        }
    }
    return -1;
}

int skip_separators(const char* text, int len, int pos) {
    while (pos < len && (text[pos] == ' ' || text[pos] == '=')) {
        ++pos;
    }
    return pos;
}

int decimal_value_at(const char* text, int len, int pos) {
    const Token token = token_at(text, pos, [len](char c, int at) {
        return std::isdigit(static_cast<unsigned char>(c)) != 0 || (c == '-' && at < len);
    });
    const long value = std::strtol(token.data(), nullptr, 10);
    return static_cast<int>(std::clamp<long>(value, INT_MIN, INT_MAX));
}

unsigned int hex_value_at(const char* text, int len, int pos) {
    const Token token = token_at(text, pos, [len](char c, int at) {
        return std::isxdigit(static_cast<unsigned char>(c)) != 0 || (c == 'x' && at < len - 1);
    });
    const unsigned long long value = std::strtoull(token.data(), nullptr, 16);
    return static_cast<unsigned int>(std::min<unsigned long long>(value, UINT_MAX));
}
