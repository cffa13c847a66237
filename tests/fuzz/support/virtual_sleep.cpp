#include "support/virtual_sleep.h"

#include <sys/select.h>

void (*on_sleep)(long milliseconds) = nullptr;

extern "C" {
// The names that the linker's --wrap gives.
int __real_select(int, fd_set*, fd_set*, fd_set*, timeval*);

int __wrap_select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional,
                  timeval* timeout) {
    if (count != 0 || timeout == nullptr) {
        return __real_select(count, readable, writable, exceptional, timeout);
    }
    if (on_sleep != nullptr) {
        on_sleep(static_cast<long>(timeout->tv_sec * 1000 + timeout->tv_usec / 1000));
    }
    return 0;
}
}
