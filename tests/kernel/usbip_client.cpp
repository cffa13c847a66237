#include "usbip_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace {

constexpr int longest_wait = 10000;

void add(Octets& bytes, std::uint32_t value, unsigned size = 4) {
    while (size-- > 0) {
        bytes.push_back(static_cast<std::uint8_t>(value >> size * 8));
    }
}

std::uint32_t number(const Octets& bytes, std::size_t at, unsigned size = 4) {
    std::uint32_t value = 0;
    for (unsigned index = 0; index < size; ++index) {
        value = value << 8 | bytes.at(at + index);
    }
    return value;
}

std::string text(const Octets& bytes, std::size_t at) {
    std::string found;
    while (bytes.at(at) != 0) {
        found += static_cast<char>(bytes[at++]);
    }
    return found;
}

}  // namespace

Octets urb_header(std::uint32_t command, std::uint32_t sequence, bool in, unsigned endpoint,
                  std::size_t length, const Octets& setup) {
    Octets bytes;
    for (const std::uint32_t value : {command, sequence, 0x10002U, in ? 1U : 0U, endpoint, 0U,
                                      static_cast<std::uint32_t>(length), 0U, 0xFFFFFFFFU, 0U}) {
        add(bytes, value);
    }
    bytes.insert(bytes.end(), setup.begin(), setup.end());
    return bytes;
}

UsbIpClient::UsbIpClient(std::uint16_t port, const std::string& address)
    : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(port);
    inet_pton(AF_INET, address.c_str(), &name.sin_addr);
    if (connect(socket_, reinterpret_cast<const sockaddr*>(&name), sizeof(name)) != 0) {
        const int error = errno;
        close(socket_);
        throw std::system_error(error, std::generic_category(), "connect");
    }
}

UsbIpClient::~UsbIpClient() {
    close(socket_);
}

void UsbIpClient::send(const Octets& bytes) {
    // A server that has hung up is found out by the next receive.
    [[maybe_unused]] const auto count = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

Octets UsbIpClient::receive(std::size_t count) {
    Octets bytes(count);
    std::size_t got = 0;
    while (got < count) {
        pollfd file{socket_, POLLIN, 0};
        const ssize_t part = poll(&file, 1, longest_wait) == 1
                                 ? recv(socket_, bytes.data() + got, count - got, 0)
                                 : 0;
        if (part <= 0) {
            break;
        }
        got += static_cast<std::size_t>(part);
    }
    bytes.resize(got);
    return bytes;
}

std::vector<ListedDevice> UsbIpClient::list() {
    send({0x01, 0x11, 0x80, 0x05, 0, 0, 0, 0});
    const Octets head = receive(12);
    std::vector<ListedDevice> devices;
    if (head.size() < 12 || number(head, 0) != 0x01110005 || number(head, 4) != 0) {
        return devices;
    }
    for (std::uint32_t left = number(head, 8); left > 0; --left) {
        const Octets bytes = receive(312);
        ListedDevice device;
        device.bus_id = text(bytes, 256);
        device.speed = number(bytes, 296);
        device.vendor = number(bytes, 300, 2);
        device.product = number(bytes, 302, 2);
        device.bcd = number(bytes, 304, 2);
        const Octets interfaces = receive(bytes.at(311) * std::size_t{4});
        for (std::size_t at = 0; at < interfaces.size(); at += 4) {
            device.interface_classes.push_back(interfaces[at]);
        }
        devices.push_back(device);
    }
    return devices;
}

unsigned UsbIpClient::import(const std::string& bus_id) {
    Octets request{0x01, 0x11, 0x80, 0x03, 0, 0, 0, 0};
    request.insert(request.end(), bus_id.begin(), bus_id.end());
    request.resize(40);
    send(request);
    const Octets head = receive(8);
    if (head.size() < 8 || number(head, 0) != 0x01110003) {
        return 0xFFFF;
    }
    const unsigned status = number(head, 4);
    if (status == 0 && text(receive(312), 256) != bus_id) {
        return 0xFFFF;
    }
    return status;
}

void UsbIpClient::submit_control(std::uint32_t sequence, const Octets& setup, const Octets& out) {
    const bool in = (setup.at(0) & 0x80) != 0;
    const std::size_t length = setup.at(6) + setup.at(7) * std::size_t{256};
    Octets bytes = urb_header(1, sequence, in, 0, length, setup);
    bytes.insert(bytes.end(), out.begin(), out.end());
    send(bytes);
    if (in) {
        reading_.push_back(sequence);
    }
}

void UsbIpClient::submit_interrupt_in(std::uint32_t sequence, unsigned endpoint,
                                      std::size_t length) {
    send(urb_header(1, sequence, true, endpoint, length));
    reading_.push_back(sequence);
}

void UsbIpClient::unlink(std::uint32_t sequence, std::uint32_t which) {
    Octets bytes = urb_header(2, sequence, false, 0, 0);
    for (unsigned index = 0; index < 4; ++index) {
        bytes[20 + index] = static_cast<std::uint8_t>(which >> (3 - index) * 8);
    }
    send(bytes);
}

UrbReply UsbIpClient::next() {
    const Octets head = receive(48);
    UrbReply reply;
    if (head.size() < 48) {
        return reply;
    }
    reply.command = number(head, 0);
    reply.sequence = number(head, 4);
    reply.status = static_cast<int>(number(head, 20));
    reply.actual = number(head, 24);
    const bool reads = std::count(reading_.begin(), reading_.end(), reply.sequence) > 0;
    if (reply.command == 3 && reads) {
        reply.data = receive(reply.actual);
    }
    return reply;
}

bool UsbIpClient::ends() {
    std::uint8_t byte = 0;
    pollfd file{socket_, POLLIN, 0};
    return poll(&file, 1, longest_wait) == 1 && recv(socket_, &byte, 1, 0) <= 0;
}

bool UsbIpClient::silent() const {
    pollfd file{socket_, POLLIN, 0};
    return poll(&file, 1, 100) == 0;
}
