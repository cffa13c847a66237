// zelfwsim-redir BUSFILE STATEDIR SOCKETDIR: makes a socket SOCKETDIR/NAME for every device of the
// bus and redirects the device to the QEMU that connects there. Ends when the last one has hung up,
// or by a signal.
#include "model/device/bus.h"
#include "usbredir/redirected_device.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <list>
#include <span>
#include <string>
#include <system_error>
#include <vector>

namespace {

using zelf::FileDescriptor;
using zelfsim::Duration;
using zelfsim::Peripheral;
using zelfsim::TimePoint;
using zelfsim::usbredir::RedirectedDevice;

/// How soon a device that came back is plugged in.
constexpr Duration longest_pause = std::chrono::milliseconds(20);

struct Socket {
    zelf::FileDescriptor listener;
    Peripheral* peripheral = nullptr;
};

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

zelf::FileDescriptor listen_at(const std::string& path) {
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    if (path.size() >= sizeof(name.sun_path)) {
        errno = ENAMETOOLONG;
        fail(path);
    }
    std::copy(path.begin(), path.end(), std::begin(name.sun_path));
    unlink(path.c_str());
    zelf::FileDescriptor handle(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!handle.is_open() ||
        bind(handle.get(), reinterpret_cast<const sockaddr*>(&name), sizeof(name)) != 0 ||
        listen(handle.get(), 1) != 0) {
        fail(path);
    }
    return handle;
}

Duration pause(const std::list<RedirectedDevice>& devices, TimePoint time) {
    Duration wait = longest_pause;
    for (const RedirectedDevice& device : devices) {
        if (const auto next = device.next_event(time)) {
            wait = std::clamp(*next - time, Duration{0}, wait);
        }
    }
    return wait;
}

void wait_for(std::vector<pollfd>& files, Duration wait) {
    const timespec time{0, static_cast<long>(wait.count() * 1000)};
    if (ppoll(files.data(), files.size(), &time, nullptr) < 0 && errno != EINTR) {
        fail("poll");
    }
}

void serve(zelfsim::Bus& bus, const std::vector<Socket>& sockets) {
    std::list<RedirectedDevice> devices;
    bool began = false;
    while (!began || !devices.empty()) {
        const TimePoint time = zelfsim::now();
        for (RedirectedDevice& device : devices) {
            device.proceed(time);
        }
        devices.remove_if([](const RedirectedDevice& device) { return device.over(); });
        std::vector<pollfd> files;
        for (const RedirectedDevice& device : devices) {
            files.push_back({device.socket(),
                             static_cast<short>(POLLIN | (device.wants_to_write() ? POLLOUT : 0)),
                             0});
        }
        for (const Socket& socket : sockets) {
            files.push_back({socket.listener.get(), POLLIN, 0});
        }
        wait_for(files, pause(devices, time));
        auto file = files.begin();
        for (RedirectedDevice& device : devices) {
            if ((file++->revents & ~POLLOUT) != 0) {
                device.receive();
            }
        }
        for (const Socket& socket : sockets) {
            if (file++->revents != 0) {
                zelf::FileDescriptor host(
                    accept4(socket.listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
                if (host.is_open()) {
                    devices.emplace_back(std::move(host), *socket.peripheral, bus.log());
                    began = true;
                }
            }
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::span<char*> arguments(argv, static_cast<std::size_t>(argc));
    if (arguments.size() != 4) {
        std::fprintf(stderr, "usage: zelfwsim-redir BUSFILE STATEDIR SOCKETDIR\n");
        return 1;
    }
    try {
        const char* record = std::getenv("ZELFWSIM_RECORD");
        zelfsim::Bus bus({arguments[1], arguments[2], record != nullptr ? record : ""});
        std::vector<Socket> sockets;
        for (const auto& peripheral : bus.peripherals()) {
            if (!peripheral->description().is_hub) {
                const std::string path =
                    std::string(arguments[3]) + "/" + peripheral->description().name;
                sockets.push_back({listen_at(path), peripheral.get()});
            }
        }
        std::printf("Listening\n");
        std::fflush(stdout);
        serve(bus, sockets);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 2;
    }
}
