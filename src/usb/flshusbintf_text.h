/// \file
/// Finding values in device paths and in interface strings.
#pragma once

/// Position just past the first occurrence of `keyword` that starts at one of the positions 0 to
/// `len` - 2 of `text`, -1 when there is none. `text` is NUL-terminated.
int find_keyword_in(const char* keyword, const char* text, int len);

/// First position from `pos` on, at most `len`, that holds neither a blank nor '='.
int skip_separators(const char* text, int len, int pos);

/// The decimal number at `pos`: digits, and '-' below position `len`; 0 when nothing converts.
int decimal_value_at(const char* text, int len, int pos);

/// The hexadecimal number at `pos`: hex digits, and 'x' below position `len` - 1; 0 when nothing
/// converts. Saturates at 32 bits.
unsigned int hex_value_at(const char* text, int len, int pos);
