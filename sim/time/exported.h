/// \file
/// Marks the functions that stand in place of the C library's.
#pragma once

#define ZELF_EXPORTED __attribute__((visibility("default")))
#define ZELF_CALLER __builtin_return_address(0)
