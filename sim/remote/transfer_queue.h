/// \file
/// The transfers that a host controller has outstanding at one peripheral.
#pragma once

#include "model/device/basics.h"
#include "model/device/peripheral.h"
#include "model/store/transfer_log.h"

#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <string>
#include <vector>

namespace zelfsim::remote {

/// A transfer that is over.
struct Finished {
    std::uint32_t id = 0;  ///< the host's name for it
    Completion completion = Completion::ok;
    Bytes data;                ///< what was read
    std::size_t accepted = 0;  ///< bytes that were written
};

/// Holds each transfer until the device is done with it. A transfer that the device never answers
/// stays until the host cancels it. Made when the host connects to the device; it is of no further
/// use once the device has left the bus.
class TransferQueue {
  public:
    /// The references outlive this.
    TransferQueue(Peripheral& peripheral, TransferLog& log);

    /// Whether the device is still there, and was all the time.
    bool connected(TimePoint time);

    void control(std::uint32_t id, const Setup& setup, ByteView out, TimePoint time);
    void interrupt_in(std::uint32_t id, std::uint8_t endpoint, std::size_t length);
    void interrupt_out(std::uint32_t id, std::uint8_t endpoint, ByteView out, TimePoint time);

    /// Takes a transfer back. False when there is none of that name.
    bool cancel(std::uint32_t id);
    bool has(std::uint32_t id) const;

    /// Gives the transfers that are over, each once. Once the device is gone these are all that it
    /// had answered before; the others get no answer.
    std::vector<Finished> finish(TimePoint time);

    /// When `finish` is worth another call; none: when something else happens.
    std::optional<TimePoint> next_event(TimePoint time) const;

  private:
    struct Entry {
        Finished result;
        std::string kind;
        std::string setup;
        Bytes out;
        std::uint8_t endpoint = 0;
        std::size_t length = 0;
        bool waits_for_data = false;   ///< an IN endpoint that may have nothing yet
        std::optional<TimePoint> due;  ///< none: not answered
    };

    void answer(Entry entry, Reply reply, TimePoint time);
    void poll(Entry& entry, TimePoint time);
    void record(const Entry& entry, long result);

    Peripheral& peripheral_;
    TransferLog& log_;
    unsigned connection_;
    std::uint8_t address_;
    std::list<Entry> entries_;
};

}  // namespace zelfsim::remote
