// Asks the kernel's hub driver for its ports, as a program does that knows nothing of a simulated
// bus. Prints the result and the ports, or the error's number.
#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

int main(int argc, char** argv) {
    const int descriptor = argc > 1 ? open(argv[1], O_RDWR) : -1;
    if (descriptor < 0) {
        std::printf("open %d\n", errno);
        return 1;
    }
    usbdevfs_hub_portinfo ports{};
    usbdevfs_ioctl request{0, static_cast<int>(USBDEVFS_HUB_PORTINFO), &ports};
    const int result = ioctl(descriptor, USBDEVFS_IOCTL, &request);
    if (result < 0) {
        std::printf("ioctl %d\n", errno);
    } else {
        std::printf("%d:", result);
        for (int port = 0; port < ports.nports; ++port) {
            std::printf(" %d", ports.port[port]);
        }
        std::printf("\n");
    }
    close(descriptor);
    return 0;
}
