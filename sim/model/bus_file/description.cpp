#include "model/bus_file/description.h"

#include <cstdio>

namespace zelfsim {

namespace {

int hex_digit(char character) {
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

bool hex_byte(const std::string& text, std::size_t at, std::uint8_t& byte) {
    const int high = hex_digit(text[at]);
    const int low = hex_digit(text[at + 1]);
    if (high < 0 || low < 0) {
        return false;
    }
    byte = static_cast<std::uint8_t>(high * 16 + low);
    return true;
}

}  // namespace

std::string level_text(const Version& version) {
    char text[8];
    std::snprintf(text, sizeof text, "%02x.%02x", version.major, version.minor);
    return text;
}

std::string version_text(const Version& version) {
    char text[12];
    std::snprintf(text, sizeof text, "%02x.%02x.%02x", version.major, version.minor, version.build);
    return text;
}

bool parse_level(const std::string& text, Version& version) {
    return text.size() == 5 && text[2] == '.' && hex_byte(text, 0, version.major) &&
           hex_byte(text, 3, version.minor);
}

}  // namespace zelfsim
