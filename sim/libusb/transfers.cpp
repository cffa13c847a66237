// The blocking transfers.
#include "libusb/objects.h"
#include "model/device/descriptors.h"
#include "model/device/request_codes.h"
#include "model/store/record_text.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <string>
#include <thread>

using zelfsim::ByteView;
using zelfsim::Completion;
using zelfsim::Duration;
using zelfsim::endpoint_text;
using zelfsim::InterfaceDescription;
using zelfsim::Peripheral;
using zelfsim::Reply;
using zelfsim::Setup;
using zelfsim::TimePoint;
using zelfsim::usb::alive;
using zelfsim::usb::guarded;
using zelfsim::usb::HandlePointer;
using zelfsim::usb::World;

namespace {

constexpr std::uint16_t longest_control = 4096;

/// The time-out of a transfer; 0 milliseconds means for ever.
Duration patience_of(unsigned milliseconds) {
    return milliseconds == 0 ? Duration::max() : std::chrono::milliseconds(milliseconds);
}

/// When a wait that begins at `begin` is over; none for one without end.
std::optional<TimePoint> deadline_of(unsigned milliseconds, TimePoint begin) {
    return milliseconds == 0 ? std::nullopt
                             : std::optional(begin + std::chrono::milliseconds(milliseconds));
}

/// A transfer to an interface claims it, as the kernel does; false when somebody else holds it.
bool claim_for_transfer(World& world, libusb_device_handle& handle,
                        const InterfaceDescription* interface) {
    if (interface == nullptr) {
        return false;
    }
    if (handle.claims.contains(interface->number)) {
        return true;
    }
    const Peripheral& peripheral = *handle.device->peripheral;
    if (peripheral.driver_bound(interface->number) ||
        world.claimed(peripheral, interface->number)) {
        return false;
    }
    world.claim(handle, interface->number);
    return true;
}

/// Whether the kernel lets a control request through to the device.
bool may_send(World& world, libusb_device_handle& handle, const Setup& setup) {
    const Peripheral& peripheral = *handle.device->peripheral;
    const auto target = static_cast<std::uint8_t>(setup.index & 0xFF);
    switch (setup.type & zelfsim::recipient_mask) {
        case zelfsim::to_interface:
            return claim_for_transfer(world, handle, peripheral.interface(target));
        case zelfsim::to_endpoint:
            return (target & 0x0F) == 0 ||
                   claim_for_transfer(world, handle, peripheral.interface_of_endpoint(target));
        default:
            return true;
    }
}

/// Waits out what a transfer takes; a transfer that takes longer than its time-out becomes one.
void wait_out(Reply& reply, unsigned timeout) {
    const Duration patience = patience_of(timeout);
    if (reply.completion == Completion::timeout) {
        reply.duration = timeout == 0 ? std::chrono::seconds(60) : patience;
    } else if (reply.duration > patience) {
        reply = Reply{Completion::timeout, {}, 0, patience};
    }
    if (reply.duration > Duration{0}) {
        std::this_thread::sleep_for(reply.duration);
    }
}

int control(libusb_device_handle* raw, const Setup& setup, unsigned char* data, unsigned timeout) {
    const bool in = (setup.type & zelfsim::direction_in) != 0;
    World& world = World::instance();
    Reply reply;
    HandlePointer handle;
    std::optional<zelfsim::SentSignal> signal;
    {
        const std::lock_guard lock(world.mutex);
        handle = world.find(raw, "control");
        if (!handle) {
            return LIBUSB_ERROR_NO_DEVICE;
        }
        const TimePoint begin = zelfsim::now();
        if (!alive(*handle, begin)) {
            reply.completion = Completion::no_device;
        } else if (!may_send(world, *handle, setup)) {
            reply.completion = Completion::io_error;
        } else {
            const ByteView out = in ? ByteView{} : ByteView(data, setup.length);
            reply = handle->device->peripheral->control(setup, out, patience_of(timeout), begin);
        }
        signal = handle->device->peripheral->take_signal();
        world.changed.notify_all();
    }
    if (reply.completion == Completion::crash) {
        zelfsim::usb::crash();
    }
    zelfsim::usb::send_signal(signal);
    wait_out(reply, timeout);
    int result = zelfsim::usb::code_of(reply.completion);
    if (result == LIBUSB_SUCCESS) {
        result = static_cast<int>(in ? reply.data.size() : reply.accepted);
        std::copy(reply.data.begin(), reply.data.end(), data);
    }
    const ByteView bytes = in ? ByteView(reply.data) : ByteView(data, setup.length);
    const std::lock_guard lock(world.mutex);
    zelfsim::usb::record(*handle, "control", setup_text(setup), bytes, result);
    return result;
}

/// Polls until there is something; `lock` is released while waiting.
Reply poll(World& world, std::unique_lock<std::mutex>& lock, libusb_device_handle& handle,
           const InterfaceDescription& interface, unsigned char endpoint, std::size_t length,
           unsigned timeout) {
    Peripheral& peripheral = *handle.device->peripheral;
    const auto deadline = deadline_of(timeout, zelfsim::now());
    const unsigned claim = handle.claims.at(interface.number);
    while (true) {
        const TimePoint time = zelfsim::now();
        const auto held = handle.claims.find(interface.number);
        if (!alive(handle, time) || held == handle.claims.end() || held->second != claim) {
            return Reply{Completion::no_device, {}, 0, Duration{0}};
        }
        if (auto reply = peripheral.interrupt_in(endpoint, length, time)) {
            return *reply;
        }
        if (deadline && time >= *deadline) {
            return Reply{Completion::timeout, {}, 0, Duration{0}};
        }
        auto next = peripheral.next_event();
        if (deadline && (!next || *deadline < *next)) {
            next = deadline;
        }
        if (next) {
            world.changed.wait_until(lock, *next);
        } else {
            world.changed.wait(lock);
        }
    }
}

/// Writes to an OUT endpoint; only a flash interface takes anything.
Reply write_endpoint(World& world, std::unique_lock<std::mutex>& lock, libusb_device_handle& handle,
                     const InterfaceDescription& interface, unsigned char endpoint, ByteView data,
                     unsigned timeout) {
    if (interface.kind == zelfsim::InterfaceKind::storage) {
        return poll(world, lock, handle, interface, endpoint, 0, timeout);
    }
    Reply reply = handle.device->peripheral->interrupt_out(endpoint, data, patience_of(timeout),
                                                           zelfsim::now());
    const auto signal = handle.device->peripheral->take_signal();
    world.changed.notify_all();
    lock.unlock();
    zelfsim::usb::send_signal(signal);
    if (reply.completion != Completion::crash) {
        wait_out(reply, timeout);
    }
    lock.lock();
    return reply;
}

int transfer(libusb_device_handle* raw, const char* kind, unsigned char endpoint,
             unsigned char* data, int length, int* actual, unsigned timeout) {
    const bool in = (endpoint & zelfsim::direction_in) != 0;
    World& world = World::instance();
    std::unique_lock lock(world.mutex);
    const HandlePointer handle = world.find(raw, kind);
    if (!handle) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    if (length < 0) {
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    const ByteView out(data, static_cast<std::size_t>(in ? 0 : length));
    const InterfaceDescription* interface =
        handle->device->peripheral->interface_of_endpoint(endpoint);
    Reply reply;
    bool begun = false;
    if (!alive(*handle, zelfsim::now())) {
        reply.completion = Completion::no_device;
    } else if (!claim_for_transfer(world, *handle, interface)) {
        reply.completion = Completion::io_error;
    } else if (begun = true; in) {
        reply = poll(world, lock, *handle, *interface, endpoint, static_cast<std::size_t>(length),
                     timeout);
    } else {
        reply = write_endpoint(world, lock, *handle, *interface, endpoint, out, timeout);
    }
    const int result = zelfsim::usb::code_of(reply.completion);
    std::copy(reply.data.begin(), reply.data.end(), data);
    // The count of a transfer that the kernel did not take stays as the caller left it.
    if (actual != nullptr && begun) {
        *actual = static_cast<int>(in ? reply.data.size() : reply.accepted);
    }
    zelfsim::usb::record(*handle, kind, endpoint_text(endpoint, static_cast<std::size_t>(length)),
                         in ? ByteView(reply.data) : out, result);
    const auto signal = handle->device->peripheral->take_signal();
    lock.unlock();
    zelfsim::usb::send_signal(signal);
    if (reply.completion == Completion::crash) {
        zelfsim::usb::crash();
    }
    return result;
}

}  // namespace

extern "C" {

int libusb_control_transfer(libusb_device_handle* handle, uint8_t type, uint8_t request,
                            uint16_t value, uint16_t index, unsigned char* data, uint16_t length,
                            unsigned int timeout) {
    if (length > longest_control) {
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    return guarded<int>(LIBUSB_ERROR_OTHER, [&] {
        return control(handle, Setup{type, request, value, index, length}, data, timeout);
    });
}

int libusb_interrupt_transfer(libusb_device_handle* handle, unsigned char endpoint,
                              unsigned char* data, int length, int* actual, unsigned int timeout) {
    return guarded<int>(LIBUSB_ERROR_OTHER, [&] {
        return transfer(handle, "interrupt", endpoint, data, length, actual, timeout);
    });
}

int libusb_bulk_transfer(libusb_device_handle* handle, unsigned char endpoint, unsigned char* data,
                         int length, int* actual, unsigned int timeout) {
    return guarded<int>(LIBUSB_ERROR_OTHER, [&] {
        return transfer(handle, "bulk", endpoint, data, length, actual, timeout);
    });
}

int libusb_get_string_descriptor_ascii(libusb_device_handle* handle, uint8_t index,
                                       unsigned char* data, int length) {
    constexpr unsigned default_timeout = 1000;
    constexpr std::uint8_t longest = 255;
    std::array<unsigned char, longest> text{};
    if (index == 0 || length < 1) {
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    const int got =
        libusb_control_transfer(handle, zelfsim::direction_in, zelfsim::get_descriptor_request,
                                static_cast<std::uint16_t>(zelfsim::descriptor_string << 8 | index),
                                zelfsim::us_english, text.data(), longest, default_timeout);
    if (got < 0) {
        return got;
    }
    if (got < 2 || text[1] != zelfsim::descriptor_string || text[0] > got) {
        return LIBUSB_ERROR_IO;
    }
    int count = 0;
    for (std::size_t at = 2; at + 1 < text[0] && count < length - 1; at += 2) {
        data[count++] = text[at + 1] != 0 || text[at] > 0x7F ? '?' : text[at];
    }
    data[count] = 0;
    return count;
}

}  // extern "C"
