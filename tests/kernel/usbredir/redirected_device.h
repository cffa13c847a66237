/// \file
/// One peripheral behind a usbredir connection, as QEMU's usb-redir device takes it: a controller
/// that QEMU emulates then drives it.
#pragma once

#include "common/file_access.h"
#include "model/device/peripheral.h"
#include "model/store/transfer_log.h"
#include "remote/transfer_queue.h"

#include <usbredirparser.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>

namespace zelfsim::usbredir {

/// The device's plug: it is pulled when the device leaves the bus and put in again when it returns,
/// at the same port, over the same connection.
class RedirectedDevice {
  public:
    /// `socket` is connected and does not block; the references outlive this.
    RedirectedDevice(zelf::FileDescriptor socket, Peripheral& peripheral, TransferLog& log);
    RedirectedDevice(const RedirectedDevice&) = delete;
    RedirectedDevice& operator=(const RedirectedDevice&) = delete;

    int socket() const { return socket_.get(); }
    bool over() const { return over_; }
    bool wants_to_write() const { return usbredirparser_has_data_to_write(parser_.get()) > 0; }

    /// The socket has something to read.
    void receive();
    /// Does what is due, and sends.
    void proceed(TimePoint time);
    std::optional<TimePoint> next_event(TimePoint time) const;

  private:
    struct ParserDeleter {
        void operator()(usbredirparser* parser) const { usbredirparser_destroy(parser); }
    };

    void set_callbacks();
    void plug_in(TimePoint time);
    void send_interfaces();
    void send_endpoints();
    void finish(const remote::Finished& finished);
    void finish_control(const remote::Finished& finished);
    void finish_interrupt(const remote::Finished& finished);
    void poll_endpoint(std::uint8_t endpoint);

    // What QEMU asks for.
    void control(std::uint64_t id, const usb_redir_control_packet_header& header, ByteView data);
    void interrupt_out(std::uint64_t id, const usb_redir_interrupt_packet_header& header,
                       ByteView data);
    void start_receiving(std::uint64_t id, std::uint8_t endpoint);
    void stop_receiving(std::uint64_t id, std::uint8_t endpoint);
    void cancel(std::uint64_t id);

    zelf::FileDescriptor socket_;
    Peripheral& peripheral_;
    TransferLog& log_;
    std::unique_ptr<usbredirparser, ParserDeleter> parser_;
    bool greeted_ = false;
    bool over_ = false;
    std::optional<remote::TransferQueue> queue_;  ///< while plugged in
    std::map<std::uint32_t, usb_redir_control_packet_header> controls_;
    std::map<std::uint32_t, usb_redir_interrupt_packet_header> writes_;
    std::uint64_t reports_ = 0;
};

}  // namespace zelfsim::usbredir
