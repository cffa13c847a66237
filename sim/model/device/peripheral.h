/// \file
/// One device or hub on the simulated bus, free of any transport: control requests and polls of
/// interrupt endpoints go in, answers come out together with the time they take. Nothing here
/// sleeps or locks; the bus's owner does both.
#pragma once

#include "model/bus_file/description.h"
#include "model/bus_file/fault.h"
#include "model/device/address_pool.h"
#include "model/device/basics.h"
#include "model/device/flash_interface.h"
#include "model/store/device_state.h"
#include "model/store/device_store.h"
#include "model/store/transfer_log.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

namespace zelfsim {

/// A control request (USB 2.0 section 9.3).
struct Setup {
    std::uint8_t type = 0;
    std::uint8_t request = 0;
    std::uint16_t value = 0;
    std::uint16_t index = 0;
    std::uint16_t length = 0;
};

enum class Completion { ok, stall, no_device, timeout, io_error, overflow, crash };

struct Reply {
    Completion completion = Completion::ok;
    Bytes data;                ///< what is read
    std::size_t accepted = 0;  ///< bytes that were written
    Duration duration{0};      ///< how long the transfer takes
};

/// The bytes a fault leaves of a transfer; none when it does not shorten it.
std::optional<std::size_t> cut_by(const FaultRule* rule);

/// A signal that a fault sends to the process.
struct SentSignal {
    int number = 0;
    Duration delay{0};
};

/// What becomes of opening, claiming or detaching.
enum class HostFault { none, refused, busy, unplugged, crash };

class Peripheral {
  public:
    /// The references outlive this.
    Peripheral(const DeviceDescription& description, DeviceStore store, AddressPool& addresses,
               TransferLog& log);
    Peripheral(const Peripheral&) = delete;
    Peripheral& operator=(const Peripheral&) = delete;

    const DeviceDescription& description() const { return description_; }
    const DeviceState& state() const { return state_; }
    const DeviceStore& store() const { return store_; }
    std::uint8_t address() const { return state_.address; }

    /// Counts the times the device came onto the bus; a handle of an earlier time is dead.
    unsigned connection() const { return connection_; }

    /// Lets scheduled drops and returns happen. Every call with a time begins so.
    void advance(TimePoint time);
    /// As of the last `advance`; a device whose hub is away is away too.
    bool attached() const { return attached_; }

    /// One control transfer; `out` is what the host sends. `patience` is the host's time-out.
    Reply control(const Setup& setup, ByteView out, Duration patience, TimePoint time);
    /// Polls an interrupt IN endpoint with room for `length` bytes; none is a NAK.
    std::optional<Reply> interrupt_in(std::uint8_t endpoint, std::size_t length, TimePoint time);
    Reply interrupt_out(std::uint8_t endpoint, ByteView out, Duration patience, TimePoint time);

    /// When a poll that got a NAK is worth another try; none: nothing is on its way.
    std::optional<TimePoint> next_event() const;

    /// Faults of opening, claiming and detaching.
    HostFault host_fault(FaultEvent event, TimePoint time);

    /// The signal of the fault that struck last, once. Whoever moves the transfers sends it.
    std::optional<SentSignal> take_signal() { return std::exchange(signal_, std::nullopt); }

    /// Whether a kernel driver holds the interface.
    bool driver_bound(std::uint8_t interface) const;
    void bind_driver(std::uint8_t interface, bool bound);

    void clear_halt(std::uint8_t endpoint) { halted_.erase(endpoint); }
    /// A reset of the port: waiting reports and halts are gone, the firmware runs on.
    void port_reset();

    const InterfaceDescription* interface(std::uint8_t number) const;
    const InterfaceDescription* interface_of_endpoint(std::uint8_t endpoint) const;

    /// Hangs a device on this hub.
    void adopt(Peripheral& child);
    /// The hub it hangs on; null for a root hub.
    const Peripheral* hub() const { return hub_; }

  private:
    struct WaitingReport {
        TimePoint ready;
        Bytes bytes;
    };

    enum class DropReason { reset, unplug, replug };

    // peripheral.cpp
    void drop(DropReason reason, Duration away, TimePoint time);
    void drop_for_fault(const FaultRule& rule, TimePoint time);
    void arrive();
    const FaultRule* strike(std::span<const FaultEvent> events, const FaultContext& context);
    /// A transfer that `rule` hits; none when it goes through after all.
    std::optional<Reply> hit_transfer(const FaultRule& rule, TimePoint time);

    // peripheral_requests.cpp
    std::vector<FaultEvent> events_of(const Setup& setup, ByteView message) const;
    FaultContext context_of(ByteView message) const;
    Reply answer_request(const Setup& setup, ByteView out, const FaultRule* rule, Duration patience,
                         TimePoint time);
    std::optional<Bytes> standard_in(const Setup& setup);
    std::optional<Bytes> get_descriptor(const Setup& setup) const;
    bool standard_out(const Setup& setup);

    // peripheral_reports.cpp
    bool is_output_report(const Setup& setup) const;
    /// The command message inside an output report.
    ByteView message_of(ByteView report) const;
    std::optional<Bytes> class_in(const Setup& setup);
    bool class_out(const Setup& setup, ByteView out, const FaultRule* rule, Reply& reply,
                   Duration patience, TimePoint time);
    bool take_command(ByteView report, const FaultRule* rule, Reply& reply, Duration patience,
                      TimePoint time);
    void run_command(ByteView message, const FaultRule* rule, Reply& reply, TimePoint time);
    void restart_for_command(Reply& reply, TimePoint time);
    void queue_status(ByteView status, TimePoint ready);

    const DeviceDescription& description_;
    DeviceStore store_;
    AddressPool& addresses_;
    TransferLog& log_;
    DeviceState state_;
    FaultSet faults_;
    std::optional<FlashInterface> flash_;
    const InterfaceDescription* flash_interface_ = nullptr;
    std::vector<Peripheral*> children_;
    Peripheral* hub_ = nullptr;
    bool attached_ = true;
    unsigned connection_ = 1;
    std::optional<TimePoint> drop_at_;
    const FaultRule* drop_rule_ = nullptr;
    std::deque<WaitingReport> waiting_;  // by the time they are ready
    Bytes last_status_;
    TimePoint busy_until_{};
    std::set<std::uint8_t> halted_;
    std::optional<SentSignal> signal_;
};

}  // namespace zelfsim
