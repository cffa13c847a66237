/// \file
/// One host's connection to the server.
#pragma once

#include "common/file_access.h"
#include "remote/transfer_queue.h"
#include "usbip/exports.h"
#include "usbip/protocol.h"

#include <optional>

namespace zelfsim::usbip {

/// A host first asks for the device list or imports a device; from then on the connection carries
/// that device's transfers, and ends with the device.
class Connection {
  public:
    /// `socket` does not block; `exports` outlives this.
    Connection(zelf::FileDescriptor socket, Exports& exports);
    /// A connection over which `peripheral`, which is taken already, has been imported.
    Connection(zelf::FileDescriptor socket, Exports& exports, Peripheral& peripheral,
               TimePoint time);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection();

    int socket() const { return socket_.get(); }
    bool wants_to_read() const;
    bool wants_to_write() const { return !output_.empty(); }
    bool over() const { return phase_ == Phase::over; }
    /// Null before the import.
    const Peripheral* peripheral() const { return peripheral_; }

    /// The socket has something to read.
    void receive(TimePoint time);
    /// Does what is due, and sends.
    void proceed(TimePoint time);
    /// When `proceed` is worth another call; none: when something was received.
    std::optional<TimePoint> next_event(TimePoint time) const;

  private:
    enum class Phase { asking, attached, leaving, over };

    // Each gives false while the input does not hold a whole message.
    bool take_operation(TimePoint time);
    bool take_urb(TimePoint time);
    void send_device_list(TimePoint time);
    void import_device(TimePoint time);
    void attach(Peripheral& peripheral);
    void submit(const UrbRequest& request, ByteView out, TimePoint time);
    void unlink(const UrbRequest& request);
    void answer(const remote::Finished& finished);
    void leave(TimePoint time);
    void send(const Bytes& bytes);
    void flush();

    zelf::FileDescriptor socket_;
    Exports& exports_;
    Phase phase_ = Phase::asking;
    Peripheral* peripheral_ = nullptr;
    std::uint8_t address_ = 0;
    std::optional<remote::TransferQueue> queue_;
    std::size_t outstanding_ = 0;
    Bytes input_;
    Bytes output_;
    TimePoint give_up_at_{};
};

}  // namespace zelfsim::usbip
