/// \file
/// A host that speaks USB/IP byte by byte, without the server's code.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

using Octets = std::vector<std::uint8_t>;

struct ListedDevice {
    std::string bus_id;
    unsigned speed = 0;
    unsigned vendor = 0, product = 0, bcd = 0;
    std::vector<unsigned> interface_classes;
};

struct UrbReply {
    std::uint32_t command = 0;  ///< 3: of a transfer, 4: of an unlink; 0: the connection ended
    std::uint32_t sequence = 0;
    int status = 0;
    std::uint32_t actual = 0;
    Octets data;
};

/// One connection. Every wait ends after ten seconds, as if the connection had ended.
class UsbIpClient {
  public:
    /// Connects; throws when that fails.
    explicit UsbIpClient(std::uint16_t port, const std::string& address = "127.0.0.1");
    UsbIpClient(const UsbIpClient&) = delete;
    UsbIpClient& operator=(const UsbIpClient&) = delete;
    ~UsbIpClient();

    std::vector<ListedDevice> list();
    /// The status of the reply; 0 is success.
    unsigned import(const std::string& bus_id);
    /// A control transfer, sent but not waited for.
    void submit_control(std::uint32_t sequence, const Octets& setup, const Octets& out = {});
    void submit_interrupt_in(std::uint32_t sequence, unsigned endpoint, std::size_t length);
    void unlink(std::uint32_t sequence, std::uint32_t which);
    /// The next reply; for transfers that read, `data` holds what came.
    UrbReply next();
    /// Whether the server ends the connection without a further reply.
    bool ends();
    /// Whether nothing arrives for a tenth of a second.
    bool silent() const;

    void send(const Octets& bytes);
    /// Exactly so many bytes; fewer when the connection ends.
    Octets receive(std::size_t count);

  private:
    int socket_ = -1;
    std::vector<std::uint32_t> reading_;  ///< transfers whose reply carries data
};

/// A transfer's header.
Octets urb_header(std::uint32_t command, std::uint32_t sequence, bool in, unsigned endpoint,
                  std::size_t length, const Octets& setup = Octets(8));
