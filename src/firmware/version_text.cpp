#include "firmware/version_text.h"

#include <cstdio>

ShortText build_suffix(int build_level) {
    ShortText suffix = {};
    if (build_level > 0) {
        snprintf(suffix.text, sizeof(suffix.text), ".%02x", build_level & 0xFF);
    }
    return suffix;
}

ShortText ec_text(int ec_level, int build_level) {
    ShortText level = {};
    snprintf(level.text, sizeof(level.text), "%02x.%02x.%02x", (ec_level >> 8) & 0xFF,
             ec_level & 0xFF, build_level & 0xFF);
    return level;
}
