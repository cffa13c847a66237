#include "time/verdict.h"

#include "time/kernel_call.h"

#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace zelfsim::virtual_time {

std::string place_of(const void* address) {
    Dl_info info = {};
    char text[32];
    if (address == nullptr || dladdr(address, &info) == 0 || info.dli_fname == nullptr) {
        std::snprintf(text, sizeof text, "%p", address);
        return text;
    }
    std::string_view file = info.dli_fname;
    file.remove_prefix(file.find_last_of('/') + 1);
    std::snprintf(text, sizeof text, "+0x%zx",
                  reinterpret_cast<std::uintptr_t>(address) -
                      reinterpret_cast<std::uintptr_t>(info.dli_fbase));
    return std::string(file) + text;
}

void tell(const std::string& text) {
    kernel(SYS_write, STDERR_FILENO, text.data(), text.size());
}

void end_run(int code) {
    kernel(SYS_exit_group, code);
    std::abort();
}

void end_refused(const char* call, const std::string& why, const void* caller) {
    tell("zelfwsim: virtual time does not know " + std::string(call) + why + ", called from " +
         place_of(caller) + "\n");
    end_run(refused);
}

void end_refused(const char* call, const void* caller) {
    end_refused(call, "", caller);
}

void end_unusable(const char* variable, const char* text) {
    tell("zelfwsim: " + std::string(variable) + "=" + text + ": not a number in range\n");
    end_run(refused);
}

}  // namespace zelfsim::virtual_time
