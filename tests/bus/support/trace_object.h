/// \file
/// What the tests know of the program's trace object, whose header has names of this tree's reader.
#pragma once

#include <cstddef>

/// The size of its allocation.
std::size_t trace_object_size();
