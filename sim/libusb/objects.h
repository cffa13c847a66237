/// \file
/// What hides behind the USB library's three opaque pointers, and the one place that owns it all.
#pragma once

#include "model/device/bus.h"

#include <libusb-1.0/libusb.h>

#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>

struct libusb_context {
    unsigned uses = 1;  ///< of the default context: how often it was asked for
    bool events_locked = false;
    bool waiters_locked = false;
};

/// A device as one context knows it, from arrival to departure.
struct libusb_device {
    libusb_context* context = nullptr;
    std::shared_ptr<zelfsim::Bus> bus;
    zelfsim::Peripheral* peripheral = nullptr;
    unsigned connection = 0;
    std::uint8_t bus_number = 0;
    std::uint8_t address = 0;
    libusb_device_descriptor descriptor{};
    zelfsim::Bytes configuration;
    unsigned references = 1;
};

struct libusb_device_handle {
    /// Lives as long as a read that is still on its way out of a closed handle.
    std::shared_ptr<libusb_device> device;
    bool closed = false;
    /// Claimed interfaces, each with a number that no other claim has.
    std::map<std::uint8_t, unsigned> claims;
};

namespace zelfsim::usb {

using HandlePointer = std::shared_ptr<libusb_device_handle>;

/// Owns contexts, devices and handles. Every member is used with `mutex` held.
class World {
  public:
    /// Never destroyed: a thread may be blocked in a read when the process ends.
    static World& instance();

    std::mutex mutex;
    /// Told whenever something happened that a waiting read may be interested in.
    std::condition_variable changed;

    /// Loads the bus when this is the first context. Throws FileError.
    libusb_context* add_context(bool is_default);
    void remove_context(libusb_context* context);
    /// The context itself, or the default one for null; null when there is none.
    libusb_context* find(libusb_context* context);

    /// The context's object for a peripheral that is present, with one reference more.
    libusb_device* reference_present(libusb_context* context, Peripheral& peripheral);
    /// Null for a pointer that is no device.
    std::shared_ptr<libusb_device> find(libusb_device* device) const;
    void unreference(libusb_device* device);

    libusb_device_handle* add_handle(const std::shared_ptr<libusb_device>& device);
    /// Null, and a line in the record, for a pointer that is no open handle.
    HandlePointer find(libusb_device_handle* handle, std::string_view caller);
    void remove_handle(const HandlePointer& handle);

    /// Whether any open handle has claimed the interface.
    bool claimed(const Peripheral& peripheral, std::uint8_t interface) const;
    void claim(libusb_device_handle& handle, std::uint8_t interface);

    const std::shared_ptr<Bus>& bus() const { return bus_; }

  private:
    std::shared_ptr<Bus> bus_;
    std::map<libusb_context*, std::unique_ptr<libusb_context>> contexts_;
    libusb_context* default_context_ = nullptr;
    std::map<libusb_device*, std::shared_ptr<libusb_device>> devices_;
    std::map<libusb_device_handle*, HandlePointer> handles_;
    unsigned claims_ = 0;
};

/// Whether the handle's device is still the one it was opened on.
bool alive(const libusb_device_handle& handle, TimePoint time);

/// One line in the record about a handle's device.
void record(const libusb_device_handle& handle, std::string_view kind, std::string_view setup,
            ByteView data, long result);

/// libusb's code for how a transfer ended; `Completion::crash` has none.
int code_of(Completion completion);

/// Sends the process what a fault at this transfer asked for. Not with the world locked: a handler
/// may run here.
void send_signal(const std::optional<SentSignal>& signal);

/// A real memory fault in the calling thread.
[[noreturn]] void crash();

/// Runs `body`; a file of the bus that fails becomes a line on standard error and `failure`.
template <typename Result, typename Body>
Result guarded(Result failure, const Body& body) noexcept {
    try {
        return body();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return failure;
    }
}

}  // namespace zelfsim::usb
