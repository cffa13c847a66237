#include "support/usbfs_double.h"

#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>

namespace {

struct Hub {
    std::vector<uint8_t> ports;
    int error;
};

struct OpenNode {
    std::string name;
    int flags;
};

std::map<std::string, Hub> hubs;
std::map<int, OpenNode> nodes;
std::vector<UsbfsRequest> requests;
int claimed_ports = -1;

bool is_usbfs(const char* name) {
    constexpr const char prefix[] = "/proc/bus/usb/";
    return std::strncmp(name, prefix, sizeof prefix - 1) == 0;
}

}  // namespace

// The linker leads every call of open64 and ioctl here, and ours to the system's.
extern "C" {
int __real_open64(const char* name, int flags, ...);
int __real_ioctl(int fd, unsigned long request, void* data);

// NOLINTNEXTLINE(cert-dcl50-cpp)
int __wrap_open64(const char* name, int flags, ...) {
    if (!is_usbfs(name)) {
        va_list arguments;
        va_start(arguments, flags);
        const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
        va_end(arguments);
        return __real_open64(name, flags, mode);
    }
    if (hubs.count(name) == 0) {
        errno = ENOENT;
        return -1;
    }
    const int fd = __real_open64("/dev/null", O_RDWR);
    nodes[fd] = {name, flags};
    return fd;
}

int __wrap_ioctl(int fd, unsigned long request, void* data) {
    const auto node = nodes.find(fd);
    if (node == nodes.end()) {
        return __real_ioctl(fd, request, data);
    }
    const auto* const inner = static_cast<const usbdevfs_ioctl*>(data);
    requests.push_back(
        {request, inner->ifno, static_cast<unsigned int>(inner->ioctl_code), node->second.flags});
    const Hub& hub = hubs[node->second.name];
    if (hub.error != 0) {
        errno = hub.error;
        return -1;
    }
    usbdevfs_hub_portinfo answer{};
    const size_t ports = hub.ports.size();
    answer.nports = static_cast<char>(claimed_ports >= 0 ? claimed_ports : static_cast<int>(ports));
    std::copy(hub.ports.begin(), hub.ports.end(), std::begin(answer.port));
    std::memcpy(inner->data, &answer, sizeof answer);
    return static_cast<int>(ports) + 1;
}
}

void usbfs_add_hub(int bus, int address, const std::vector<uint8_t>& ports, int error) {
    char name[64];
    std::snprintf(name, sizeof name, "/proc/bus/usb/%03d/%03d", bus, address);
    hubs[name] = {ports, error};
}

void usbfs_claim_ports(uint8_t count) {
    claimed_ports = count;
}

int usbfs_open_nodes() {
    return static_cast<int>(std::count_if(nodes.begin(), nodes.end(), [](const auto& node) {
        return fcntl(node.first, F_GETFD) != -1;
    }));
}

std::vector<UsbfsRequest> usbfs_requests() {
    return requests;
}
