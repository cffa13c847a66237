#include "firmware/component_text.h"

#include "firmware/firmware_file.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace {

struct TypeText {
    int type;
    const char* device_column;  ///< null where a device's list knows no such type
    const char* file_column;
    const char* word;
};
constexpr TypeText type_texts[] = {
    {FILE_TYPE_UNSPECIFIED, nullptr, "UNS", "Unspecified"},
    {FILE_TYPE_FIRMWARE, "FW", "FW", "Firmware"},
    {FILE_TYPE_CONFIGURATION, "CFG", "CFG", "Configuration"},
    {FILE_TYPE_FONT, "FNT", "FON", "Font"},
};
constexpr char unknown_type[] = "UNK";

struct ControlText {
    int version_method;
    const char* word;
};
constexpr ControlText control_texts[] = {
    {VERSION_INCREASING, "Increasing"},
    {VERSION_RANDOM, "Random"},
};

const TypeText* find_type(int type) {
    const auto* const row = std::find_if(std::begin(type_texts), std::end(type_texts),
                                         [type](const TypeText& r) { return r.type == type; });
    return row != std::end(type_texts) ? row : nullptr;
}

const ControlText* find_control(int version_method) {
    const auto* const row = std::find_if(
        std::begin(control_texts), std::end(control_texts),
        [version_method](const ControlText& r) { return r.version_method == version_method; });
    return row != std::end(control_texts) ? row : nullptr;
}

std::string unknown(int value) {
    char text[24];
    snprintf(text, sizeof text, "Unknown(%02x)", static_cast<unsigned int>(value));
    return text;
}

}  // namespace

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

const char* device_type_text(int comp_type) {
    const TypeText* const row = find_type(comp_type);
    return row != nullptr && row->device_column != nullptr ? row->device_column : unknown_type;
}

const char* file_type_text(int comp_type) {
    const TypeText* const row = find_type(comp_type);
    return row != nullptr ? row->file_column : unknown_type;
}

std::string type_word(int comp_type) {
    const TypeText* const row = find_type(comp_type);
    return row != nullptr ? row->word : unknown(comp_type);
}

const char* control_text(int version_method) {
    const ControlText* const row = find_control(version_method);
    return row != nullptr ? row->word : "";
}

std::string control_word(int version_method) {
    const ControlText* const row = find_control(version_method);
    return row != nullptr ? row->word : unknown(version_method);
}
