/// \file
/// The texts that lists and reports make of a component's level, type and control.
#pragma once

#include <string>

/// A short text that owns its characters.
struct ShortText {
    char text[16];
};

/// ".%02x" of a build level above 0, else empty.
ShortText build_suffix(int build_level);

/// "%02x.%02x.%02x" of the level's high and low byte and the build level.
ShortText ec_text(int ec_level, int build_level);

/// A type's column in the list of attached devices: "FW", "CFG", "FNT", else "UNK".
const char* device_type_text(int comp_type);

/// A type's column in the lists of firmware files and of an update: "UNS", "FW", "CFG", "FON", else
/// "UNK".
const char* file_type_text(int comp_type);

/// A type as a word: "Unspecified", "Firmware", "Configuration", "Font", else "Unknown(xx)".
std::string type_word(int comp_type);

/// Control in the lists of an update: "Increasing", "Random", else empty.
const char* control_text(int version_method);

/// Control as a word: as `control_text`, else "Unknown(xx)".
std::string control_word(int version_method);
