#include "common/printed.h"

#include <cstdarg>
#include <cstdio>

namespace zelf {

std::string printed(const char* format, ...) {
    constexpr std::size_t longest = 1024;
    char text[longest];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    return text;
}

}  // namespace zelf
