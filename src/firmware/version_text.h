/// \file
/// The texts that lists and reports make of levels, types and control.
#pragma once

/// A short text that owns its characters.
struct ShortText {
    char text[16];
};

/// ".%02x" of a build level above 0, else empty.
ShortText build_suffix(int build_level);

/// "%02x.%02x.%02x" of the level's high and low byte and the build level.
ShortText ec_text(int ec_level, int build_level);
