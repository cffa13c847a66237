#include "time/kernel_call.h"

namespace zelfsim::virtual_time {

long (*real_syscall())(long, ...) {
    static const auto real = next<long (*)(long, ...)>("syscall");
    return real;
}

}  // namespace zelfsim::virtual_time
