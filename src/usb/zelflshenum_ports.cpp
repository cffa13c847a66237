// The ports of a hub, asked of the kernel's hub driver through usbfs.
#include "journal/output.h"
#include "usb/zelflshenum.h"

#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace {

static_assert(sizeof(usbdevfs_hub_portinfo) == sizeof(usb_hub_portinfo));
static_assert(USBDEVFS_HUB_PORTINFO == 0x80805513);
static_assert(sizeof(void*) != 4 || USBDEVFS_IOCTL == 0xC00C5512);

class FileDescriptor {
  public:
    explicit FileDescriptor(int opened) : fd(opened) {}
    ~FileDescriptor() {
        if (fd >= 0) {
            close(fd);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    const int fd;
};

}  // namespace

void get_hub_ports(int bus, int address, usb_hub_portinfo* portinfo) {
    *portinfo = {};
    char node[64];
    std::snprintf(node, sizeof node, "%s/%03d/%03d", "/proc/bus/usb", bus, address);
    const FileDescriptor hub(open(node, O_RDWR | O_CLOEXEC));
    if (hub.fd < 0) {
        return;
    }
    usbdevfs_ioctl request{};
    request.ioctl_code = static_cast<int>(USBDEVFS_HUB_PORTINFO);
    request.data = portinfo;
    // The answer of the hub driver is its port count plus one.
    if (ioctl(hub.fd, USBDEVFS_IOCTL, &request) < 0 && errno != ENOSYS) {
        writedebug("get_hub_ports ioctl(USBDEVFS_IOCTL) errno=%d\n", errno);
    }
}
