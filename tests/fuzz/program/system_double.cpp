// What the program asks of the system, as far as a run in the fuzzer's process must not reach it:
// threads, hubs, the USB library's loader, the user, and the end of the process.
#include "program/scripted_bus.h"
#include "program/turns.h"
#include "session/zelflash.h"
#include "support/check.h"

#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

namespace {

/// The readers' thread handles; the system's are addresses.
constexpr pthread_t reader_handle = 1;

int hub_node = -1;

}  // namespace

extern "C" {
// NOLINTBEGIN(cert-dcl50-cpp): the names that --wrap gives
int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __real_pthread_detach(pthread_t);
int __real_open64(const char* name, int flags, ...);
int __real_ioctl(int fd, unsigned long request, void* data);
[[noreturn]] void __real__exit(int code);

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*function)(void*), void* argument) {
    if (function != start_read_thread) {
        return __real_pthread_create(thread, attributes, function, argument);
    }
    if (scripted_bus()->deviation() != 0) {
        return EAGAIN;
    }
    *thread = reader_handle;
    turns::start(function, argument);
    return 0;
}

int __wrap_pthread_detach(pthread_t thread) {
    return thread == reader_handle ? 0 : __real_pthread_detach(thread);
}

int __wrap_open64(const char* name, int flags, ...) {
    constexpr const char hubs[] = "/proc/bus/usb/";
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    if (std::strncmp(name, hubs, sizeof hubs - 1) != 0) {
        return __real_open64(name, flags, mode);
    }
    hub_node = __real_open64("/dev/null", O_RDWR | O_CLOEXEC);
    return hub_node;
}

int __wrap_ioctl(int fd, unsigned long request, void* data) {
    if (fd != hub_node || request != USBDEVFS_IOCTL) {
        return __real_ioctl(fd, request, data);
    }
    auto* const answer = static_cast<unsigned char*>(static_cast<usbdevfs_ioctl*>(data)->data);
    return scripted_bus()->give_hub_ports(answer, sizeof(usbdevfs_hub_portinfo));
}

void __wrap__exit(int code) {
    check(scripted_bus() == nullptr, "no reader outlives the run");
    __real__exit(code);
}

uid_t __wrap_getuid() {
    return 0;
}

int __wrap_lt_dlinit() {
    return 0;
}

int __wrap_lt_dladdsearchdir(const char* /*directories*/) {
    return 0;
}

int __wrap_lt_dlexit() {
    return 0;
}

// LoadHidDlls
int __wrap__Z11LoadHidDllsv() {
    return 0;
}

// install_fault_report: a fault is the fuzzer's to report.
void __wrap__Z20install_fault_reportv() {}
// NOLINTEND(cert-dcl50-cpp)
}
