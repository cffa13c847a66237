/// \file
/// The C library's own functions behind those of this object.
#pragma once

#include <dlfcn.h>

namespace zelfsim::virtual_time {

/// The next definition of a function. Its type is known only to the caller.
template <typename Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

/// The C library's own function for calls of the kernel.
long (*real_syscall())(long, ...);

/// A call of the kernel that passes this object by.
template <typename... Arguments>
long kernel(long number, Arguments... arguments) {
    return real_syscall()(number, arguments...);
}

}  // namespace zelfsim::virtual_time
