/// \file
/// Words for counts.
#pragma once

/// What the name of a thing gets behind `count`: "1 device", "2 devices".
constexpr const char* plural(int count) {
    return count == 1 ? "" : "s";
}
