// Writing to console, log and trace: the call is the C library's, and just before it another thread
// may go on. Inside one none does, so a stream's own lock is never held by a thread that stands
// still.
#include "time/exported.h"
#include "time/kernel_call.h"
#include "time/scheduler.h"

#include <sys/types.h>
#include <sys/uio.h>

#include <cstdarg>
#include <cstddef>
#include <cstdio>

using namespace zelfsim::virtual_time;

extern "C" {

ZELF_EXPORTED ssize_t write(int descriptor, const void* data, std::size_t size) {
    static const auto real = next<ssize_t (*)(int, const void*, std::size_t)>("write");
    const Call call("write", nullptr, ZELF_CALLER);
    return real(descriptor, data, size);
}

ZELF_EXPORTED ssize_t writev(int descriptor, const iovec* parts, int count) {
    static const auto real = next<ssize_t (*)(int, const iovec*, int)>("writev");
    const Call call("writev", nullptr, ZELF_CALLER);
    return real(descriptor, parts, count);
}

ZELF_EXPORTED std::size_t fwrite(const void* data, std::size_t size, std::size_t count,
                                 FILE* stream) {
    static const auto real =
        next<std::size_t (*)(const void*, std::size_t, std::size_t, FILE*)>("fwrite");
    const Call call("fwrite", stream, ZELF_CALLER);
    return real(data, size, count, stream);
}

ZELF_EXPORTED int fputs(const char* text, FILE* stream) {
    static const auto real = next<int (*)(const char*, FILE*)>("fputs");
    const Call call("fputs", stream, ZELF_CALLER);
    return real(text, stream);
}

ZELF_EXPORTED int fputc(int character, FILE* stream) {
    static const auto real = next<int (*)(int, FILE*)>("fputc");
    const Call call("fputc", stream, ZELF_CALLER);
    return real(character, stream);
}

ZELF_EXPORTED int fflush(FILE* stream) {
    static const auto real = next<int (*)(FILE*)>("fflush");
    const Call call("fflush", stream, ZELF_CALLER);
    return real(stream);
}

ZELF_EXPORTED int fclose(FILE* stream) {
    static const auto real = next<int (*)(FILE*)>("fclose");
    const Call call("fclose", stream, ZELF_CALLER);
    return real(stream);
}

ZELF_EXPORTED int fprintf(FILE* stream, const char* format, ...) {
    const Call call("fprintf", stream, ZELF_CALLER);
    va_list arguments;
    va_start(arguments, format);
    const int result = vfprintf(stream, format, arguments);
    va_end(arguments);
    return result;
}

// The name is the C library's, for calls compiled with its bounds checks.
ZELF_EXPORTED int __fprintf_chk(FILE* stream, int flag, const char* format, ...) {
    static const auto real = next<int (*)(FILE*, int, const char*, va_list)>("__vfprintf_chk");
    const Call call("fprintf", stream, ZELF_CALLER);
    va_list arguments;
    va_start(arguments, format);
    const int result = real(stream, flag, format, arguments);
    va_end(arguments);
    return result;
}

}  // extern "C"
