#include "usbip/kernel_ports.h"

#include "common/file_access.h"
#include "usbip/protocol.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>

namespace zelfsim::usbip {

namespace {

/// Of a port's states the one that says: nothing attached.
constexpr int free = 4;

}  // namespace

bool KernelPorts::present() const {
    return access((directory_ + "/status").c_str(), F_OK) == 0;
}

std::vector<unsigned> KernelPorts::free_ports() const {
    std::vector<unsigned> found;
    // One file for each controller: status, status.1, status.2 ...
    for (unsigned controller = 0;; ++controller) {
        const std::string name =
            controller == 0 ? "status" : "status." + std::to_string(controller);
        std::ifstream file(directory_ + "/" + name);
        std::string line;
        if (!std::getline(file, line)) {  // the heading
            return found;
        }
        while (std::getline(file, line)) {
            std::istringstream fields(line);
            std::string hub;
            unsigned port = 0;
            int state = 0;
            if (fields >> hub >> port >> state && hub == "hs" && state == free) {
                found.push_back(port);
            }
        }
    }
}

int KernelPorts::attach(unsigned port, int socket, std::uint32_t device) const {
    const zelf::FileDescriptor file(open((directory_ + "/attach").c_str(), O_WRONLY | O_CLOEXEC));
    if (!file.is_open()) {
        return errno;
    }
    const std::string text = std::to_string(port) + " " + std::to_string(socket) + " " +
                             std::to_string(device) + " " + std::to_string(full_speed);
    return write(file.get(), text.data(), text.size()) < 0 ? errno : 0;
}

}  // namespace zelfsim::usbip
