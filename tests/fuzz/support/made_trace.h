/// \file
/// A trace file of the fuzzer's making: records whose headers are right, with the lines and
/// messages that readers know, whole and spoilt; or bytes just as they come.
#pragma once

#include "support/fuzz_input.h"

#include <cstdint>
#include <vector>

std::vector<std::uint8_t> made_trace(FuzzInput& input);
