#include "model/bus_file/description.h"

#include "common/hex_digit.h"

#include <cstdio>

namespace zelfsim {

namespace {

bool hex_byte(const std::string& text, std::size_t at, std::uint8_t& byte) {
    const int high = zelf::hex_digit(text[at]);
    const int low = zelf::hex_digit(text[at + 1]);
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
