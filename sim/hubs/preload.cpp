// Stands before the C library's open, close and ioctl. Paths and descriptors that have nothing to
// do with the simulated bus go through unchanged.
#include "hubs/hub_ports.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/types.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <utility>

namespace {

using zelfsim::DeviceNode;

/// As the kernel's usbdevfs_ioctl.
struct InnerRequest {
    int interface;
    int code;
    void* data;
};

constexpr unsigned usb_ioctl_type = 'U';
constexpr unsigned pass_request = 18;
constexpr unsigned hub_port_info = 19;
constexpr int descriptors = 1024;

/// The node behind a descriptor as bus * 256 + address; 0 for a descriptor that is not ours.
std::array<std::atomic<unsigned>, descriptors> nodes;

/// The next definition of a function. Its type is known only to the caller.
template <typename Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

int pass_open(const char* path, int flags, mode_t mode) {
    static const auto real = next<int (*)(const char*, int, ...)>("open");
    return real(path, flags, mode);
}

/// Opens a simulated node as something harmless that takes no data.
int open_node(const DeviceNode& node, int flags) {
    if (!zelfsim::node_present(node)) {
        errno = ENOENT;
        return -1;
    }
    const int descriptor = pass_open("/dev/null", flags & (O_ACCMODE | O_CLOEXEC), 0);
    if (descriptor >= 0 && descriptor < descriptors) {
        nodes[static_cast<std::size_t>(descriptor)] = node.bus * 256 + node.address;
    }
    return descriptor;
}

int open_any(const char* path, int flags, mode_t mode) {
    if (std::getenv("ZELFWSIM_BUS") != nullptr) {
        if (const auto node = zelfsim::parse_node(path)) {
            return open_node(*node, flags);
        }
    }
    return pass_open(path, flags, mode);
}

unsigned node_of(int descriptor) {
    return descriptor >= 0 && descriptor < descriptors
               ? nodes[static_cast<std::size_t>(descriptor)].load()
               : 0;
}

int answer(const DeviceNode& node, unsigned long request, void* argument) {
    const auto* inner = static_cast<const InnerRequest*>(argument);
    constexpr unsigned long pass = _IOWR(usb_ioctl_type, pass_request, InnerRequest);
    constexpr unsigned long hub_ports_request =
        _IOR(usb_ioctl_type, hub_port_info, zelfsim::HubPorts);
    if ((request & 0xFFFFFFFFU) != pass || inner == nullptr ||
        static_cast<unsigned>(inner->code) != hub_ports_request || inner->data == nullptr) {
        errno = ENOTTY;
        return -1;
    }
    if (!zelfsim::node_present(node)) {
        errno = ENODEV;
        return -1;
    }
    const auto ports = zelfsim::hub_ports(node);
    if (!ports || inner->interface != 0) {
        errno = ports ? EINVAL : ENOTTY;
        return -1;
    }
    std::memcpy(inner->data, ports->data(), ports->size());
    return (*ports)[0] + 1;
}

int ioctl_any(int descriptor, unsigned long request, void* argument) {
    static const auto real = next<int (*)(int, unsigned long, ...)>("ioctl");
    const unsigned node = node_of(descriptor);
    return node == 0 ? real(descriptor, request, argument)
                     : answer({node / 256, node % 256}, request, argument);
}

/// The mode argument is there only when a file may be created.
bool has_mode(int flags) {
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

}  // namespace

extern "C" {

#define ZELF_VISIBLE __attribute__((visibility("default")))

ZELF_VISIBLE int open(const char* path, int flags, ...) {
    mode_t mode = 0;
    if (has_mode(flags)) {
        va_list arguments;
        va_start(arguments, flags);
        mode = static_cast<mode_t>(va_arg(arguments, unsigned));
        va_end(arguments);
    }
    return open_any(path, flags, mode);
}

ZELF_VISIBLE int open64(const char* path, int flags, ...) {
    mode_t mode = 0;
    if (has_mode(flags)) {
        va_list arguments;
        va_start(arguments, flags);
        mode = static_cast<mode_t>(va_arg(arguments, unsigned));
        va_end(arguments);
    }
    return open_any(path, flags | O_LARGEFILE, mode);
}

// The names are the C library's, for calls compiled with its bounds checks.
ZELF_VISIBLE int __open_2(const char* path, int flags) {
    return open_any(path, flags, 0);
}

ZELF_VISIBLE int __open64_2(const char* path, int flags) {
    return open_any(path, flags | O_LARGEFILE, 0);
}

ZELF_VISIBLE int close(int descriptor) {
    static const auto real = next<int (*)(int)>("close");
    if (descriptor >= 0 && descriptor < descriptors) {
        nodes[static_cast<std::size_t>(descriptor)] = 0;
    }
    return real(descriptor);
}

ZELF_VISIBLE int ioctl(int descriptor, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    return ioctl_any(descriptor, request, argument);
}

// What a 32-bit program with 64-bit times calls.
ZELF_VISIBLE int __ioctl_time64(int descriptor, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    return ioctl_any(descriptor, request, argument);
}

}  // extern "C"
