#include "usbip/server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>
#include <vector>

namespace zelfsim::usbip {

namespace {

constexpr std::size_t most_connections = 256;
/// How soon a device that came back is noticed.
constexpr Duration idle_pause = std::chrono::milliseconds(20);

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

/// Polls; none waits for ever. False when nothing can be said about the files.
bool wait_for(std::vector<pollfd>& files, std::optional<Duration> wait) {
    timespec time{};
    if (wait) {
        time.tv_sec = static_cast<time_t>(wait->count() / 1000000);
        time.tv_nsec = static_cast<long>(wait->count() % 1000000 * 1000);
    }
    const int count = ppoll(files.data(), files.size(), wait ? &time : nullptr, nullptr);
    if (count < 0 && errno != EINTR) {
        fail("poll");
    }
    return count >= 0;
}

union SocketAddress {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;
};

/// Fills in a numeric address; the size of what was filled in, 0 for a text that is none.
socklen_t parse_address(const std::string& text, std::uint16_t port, SocketAddress& address) {
    address = {};
    if (inet_pton(AF_INET, text.c_str(), &address.v4.sin_addr) == 1) {
        address.v4.sin_family = AF_INET;
        address.v4.sin_port = htons(port);
        return sizeof(address.v4);
    }
    address = {};
    if (inet_pton(AF_INET6, text.c_str(), &address.v6.sin6_addr) == 1) {
        address.v6.sin6_family = AF_INET6;
        address.v6.sin6_port = htons(port);
        return sizeof(address.v6);
    }
    return 0;
}

}  // namespace

Server::Server(Bus& bus, Notes notes) : notes_(std::move(notes)), exports_(bus, notes_) {}

std::uint16_t Server::listen(const std::string& address, std::uint16_t port) {
    SocketAddress name{};
    socklen_t size = parse_address(address, port, name);
    if (size == 0) {
        errno = EINVAL;
        fail(address);
    }
    listener_ = zelf::FileDescriptor(
        socket(name.any.sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_TCP));
    const int on = 1;
    if (!listener_.is_open() ||
        setsockopt(listener_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
        bind(listener_.get(), &name.any, size) != 0 || ::listen(listener_.get(), SOMAXCONN) != 0 ||
        getsockname(listener_.get(), &name.any, &size) != 0) {
        fail(address + " port " + std::to_string(port));
    }
    // The port lies at the same place in both forms.
    return ntohs(name.v4.sin_port);
}

void Server::run(int stop) {
    while (true) {
        const TimePoint time = now();
        attach_devices(time);
        proceed(time);
        std::vector<pollfd> files{{stop, POLLIN, 0}};
        for (const Connection& connection : connections_) {
            const int events = (connection.wants_to_read() ? POLLIN : 0) |
                               (connection.wants_to_write() ? POLLOUT : 0);
            files.push_back({connection.socket(), static_cast<short>(events), 0});
        }
        const bool room = listener_.is_open() && connections_.size() < most_connections;
        if (room) {
            files.push_back({listener_.get(), POLLIN, 0});
        }
        if (!wait_for(files, wait_time(time))) {
            continue;
        }
        if (files.front().revents != 0) {
            return;
        }
        auto file = files.begin() + 1;
        for (Connection& connection : connections_) {
            if ((file++->revents & ~POLLOUT) != 0) {
                connection.receive(now());
            }
        }
        if (room && file->revents != 0) {
            accept_host();
        }
    }
}

void Server::accept_host() {
    zelf::FileDescriptor socket(
        accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket.is_open()) {
        return;  // the host is gone again
    }
    const int on = 1;
    setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    connections_.emplace_back(std::move(socket), exports_);
}

void Server::proceed(TimePoint time) {
    for (Connection& connection : connections_) {
        connection.proceed(time);
    }
    connections_.remove_if([](const Connection& connection) { return connection.over(); });
}

void Server::attach_devices(TimePoint time) {
    if (!kernel_) {
        return;
    }
    for (Peripheral* device : exports_.available(time)) {
        attach_device(*device, time);
    }
}

/// Hands one end of a socket pair to the kernel, on the port where the device was before if it can
/// be.
void Server::attach_device(Peripheral& peripheral, TimePoint time) {
    const std::vector<unsigned> ports = kernel_->free_ports();
    if (ports.empty()) {
        return complain(peripheral, "no free port of vhci-hcd");
    }
    const auto last = kernel_port_.find(&peripheral);
    const bool again =
        last != kernel_port_.end() && std::count(ports.begin(), ports.end(), last->second) > 0;
    const unsigned port = again ? last->second : ports.front();
    std::array<int, 2> pair{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()) != 0) {
        fail("socketpair");
    }
    zelf::FileDescriptor own(pair[0]);
    const zelf::FileDescriptor kernels(pair[1]);
    if (const int error = kernel_->attach(port, kernels.get(), device_number(peripheral))) {
        return complain(peripheral, "port " + std::to_string(port) + ": " + std::strerror(error));
    }
    kernel_port_[&peripheral] = port;
    exports_.take(peripheral);
    connections_.emplace_back(std::move(own), exports_, peripheral, time);
}

/// Says once why a device could not be attached; it is tried again.
void Server::complain(const Peripheral& peripheral, const std::string& reason) {
    if (!std::exchange(complained_, true)) {
        notes_(title(peripheral) + ": " + reason + "; trying on");
    }
}

std::optional<Duration> Server::wait_time(TimePoint time) const {
    std::optional<Duration> wait = kernel_ ? std::optional(idle_pause) : std::nullopt;
    for (const Connection& connection : connections_) {
        if (const auto next = connection.next_event(time)) {
            const Duration rest = std::max(*next - time, Duration{0});
            wait = std::min(wait.value_or(rest), rest);
        }
    }
    return wait;
}

}  // namespace zelfsim::usbip
