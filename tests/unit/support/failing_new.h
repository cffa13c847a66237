/// \file
/// Stands in front of the allocation that answers null instead of throwing.
#pragma once

/// True: `new (std::nothrow)` finds no memory.
void fail_nothrow_new(bool fail);
