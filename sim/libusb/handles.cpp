// Opening and closing, claims, kernel drivers and the rest of what a handle can do without a
// transfer.
#include "libusb/objects.h"
#include "model/device/descriptors.h"

#include <string>
#include <utility>

using zelfsim::FaultEvent;
using zelfsim::HostFault;
using zelfsim::Peripheral;
using zelfsim::usb::alive;
using zelfsim::usb::crash;
using zelfsim::usb::guarded;
using zelfsim::usb::HandlePointer;
using zelfsim::usb::World;

namespace {

constexpr int highest_interface = 31;

/// What an operation on a handle gives: its code, and whether a crash was asked for instead.
struct Outcome {
    int code = LIBUSB_SUCCESS;
    bool crash = false;
};

/// What is left to do once the world is unlocked.
int conclude(const Outcome& outcome, const std::optional<zelfsim::SentSignal>& signal) {
    if (outcome.crash) {
        crash();
    }
    zelfsim::usb::send_signal(signal);
    return outcome.code;
}

Outcome outcome_of(HostFault fault) {
    switch (fault) {
        case HostFault::refused:
            return {LIBUSB_ERROR_OTHER, false};
        case HostFault::busy:
            return {LIBUSB_ERROR_BUSY, false};
        case HostFault::unplugged:
            return {LIBUSB_ERROR_NO_DEVICE, false};
        case HostFault::crash:
            return {LIBUSB_ERROR_OTHER, true};
        case HostFault::none:
            break;
    }
    return {};
}

/// Runs `body`, which gives an Outcome, with the lock held and the handle looked up; writes the
/// record and wakes waiting reads.
template <typename Body>
int on_handle(libusb_device_handle* raw, const char* kind, const std::string& argument,
              const Body& body) {
    return guarded<int>(LIBUSB_ERROR_OTHER, [&]() -> int {
        Outcome outcome;
        std::optional<zelfsim::SentSignal> signal;
        {
            World& world = World::instance();
            const std::lock_guard lock(world.mutex);
            const HandlePointer handle = world.find(raw, kind);
            if (!handle) {
                return LIBUSB_ERROR_NO_DEVICE;
            }
            outcome = body(world, *handle, *handle->device->peripheral);
            zelfsim::usb::record(*handle, kind, argument, {}, outcome.code);
            signal = handle->device->peripheral->take_signal();
            world.changed.notify_all();
        }
        return conclude(outcome, signal);
    });
}

bool is_alive(const libusb_device_handle& handle) {
    return alive(handle, zelfsim::now());
}

Outcome open_device(World& world, libusb_device* raw, libusb_device_handle** handle) {
    const auto device = world.find(raw);
    if (!device || handle == nullptr) {
        return {LIBUSB_ERROR_INVALID_PARAM, false};
    }
    libusb_device_handle probe;
    probe.device = device;
    Outcome outcome{LIBUSB_ERROR_NO_DEVICE, false};
    if (is_alive(probe)) {
        const HostFault fault = device->peripheral->host_fault(FaultEvent::open, zelfsim::now());
        outcome = outcome_of(fault);
        if (fault == HostFault::refused) {
            outcome.code = LIBUSB_ERROR_ACCESS;
        }
    }
    if (outcome.code == LIBUSB_SUCCESS) {
        *handle = world.add_handle(device);
    }
    zelfsim::usb::record(probe, "open", {}, {}, outcome.code);
    return outcome;
}

Outcome claim(World& world, libusb_device_handle& handle, Peripheral& peripheral, int number) {
    if (number < 0 || number > highest_interface) {
        return {LIBUSB_ERROR_INVALID_PARAM, false};
    }
    const auto interface = static_cast<std::uint8_t>(number);
    if (!is_alive(handle)) {
        return {LIBUSB_ERROR_NO_DEVICE, false};
    }
    if (handle.claims.contains(interface)) {
        return {};
    }
    if (peripheral.interface(interface) == nullptr) {
        return {LIBUSB_ERROR_NOT_FOUND, false};
    }
    const Outcome outcome = outcome_of(peripheral.host_fault(FaultEvent::claim, zelfsim::now()));
    if (outcome.code != LIBUSB_SUCCESS) {
        return outcome;
    }
    if (peripheral.driver_bound(interface) || world.claimed(peripheral, interface)) {
        return {LIBUSB_ERROR_BUSY, false};
    }
    world.claim(handle, interface);
    return {};
}

Outcome detach(libusb_device_handle& handle, Peripheral& peripheral, int number) {
    if (!is_alive(handle)) {
        return {LIBUSB_ERROR_NO_DEVICE, false};
    }
    const auto interface = static_cast<std::uint8_t>(number);
    if (number < 0 || number > highest_interface || peripheral.interface(interface) == nullptr) {
        return {LIBUSB_ERROR_INVALID_PARAM, false};
    }
    if (!peripheral.driver_bound(interface)) {
        return {LIBUSB_ERROR_NOT_FOUND, false};
    }
    const Outcome outcome = outcome_of(peripheral.host_fault(FaultEvent::detach, zelfsim::now()));
    if (outcome.code == LIBUSB_SUCCESS) {
        peripheral.bind_driver(interface, false);
    }
    return outcome;
}

Outcome attach(const World& world, libusb_device_handle& handle, Peripheral& peripheral,
               int number) {
    if (!is_alive(handle)) {
        return {LIBUSB_ERROR_NO_DEVICE, false};
    }
    const auto interface = static_cast<std::uint8_t>(number);
    const auto* description =
        number < 0 || number > highest_interface ? nullptr : peripheral.interface(interface);
    if (description == nullptr) {
        return {LIBUSB_ERROR_INVALID_PARAM, false};
    }
    if (!description->driver) {
        return {LIBUSB_ERROR_NOT_FOUND, false};
    }
    if (peripheral.driver_bound(interface) || world.claimed(peripheral, interface)) {
        return {LIBUSB_ERROR_BUSY, false};
    }
    peripheral.bind_driver(interface, true);
    return {};
}

Outcome set_configuration(libusb_device_handle& handle, int configuration) {
    if (!is_alive(handle)) {
        return {LIBUSB_ERROR_NO_DEVICE, false};
    }
    if (configuration != zelfsim::configuration_value) {
        return {LIBUSB_ERROR_NOT_FOUND, false};
    }
    return {handle.claims.empty() ? LIBUSB_SUCCESS : LIBUSB_ERROR_BUSY, false};
}

}  // namespace

extern "C" {

int libusb_open(libusb_device* device, libusb_device_handle** handle) {
    return guarded<int>(LIBUSB_ERROR_OTHER, [&]() -> int {
        Outcome outcome;
        std::optional<zelfsim::SentSignal> signal;
        {
            World& world = World::instance();
            const std::lock_guard lock(world.mutex);
            outcome = open_device(world, device, handle);
            if (const auto found = world.find(device)) {
                signal = found->peripheral->take_signal();
            }
            world.changed.notify_all();
        }
        return conclude(outcome, signal);
    });
}

libusb_device_handle* libusb_open_device_with_vid_pid(libusb_context* context, uint16_t vendor,
                                                      uint16_t product) {
    libusb_device** list = nullptr;
    const ssize_t count = libusb_get_device_list(context, &list);
    libusb_device_handle* handle = nullptr;
    for (ssize_t index = 0; index < count; ++index) {
        const libusb_device_descriptor& descriptor = list[index]->descriptor;
        if (descriptor.idVendor == vendor && descriptor.idProduct == product) {
            if (libusb_open(list[index], &handle) != LIBUSB_SUCCESS) {
                handle = nullptr;
            }
            break;
        }
    }
    if (count >= 0) {
        libusb_free_device_list(list, 1);
    }
    return handle;
}

void libusb_close(libusb_device_handle* raw) {
    if (raw == nullptr) {
        return;
    }
    guarded<int>(0, [&] {
        World& world = World::instance();
        const std::lock_guard lock(world.mutex);
        if (const HandlePointer handle = world.find(raw, "close")) {
            zelfsim::usb::record(*handle, "close", {}, {}, LIBUSB_SUCCESS);
            world.remove_handle(handle);
            world.changed.notify_all();
        }
        return 0;
    });
}

libusb_device* libusb_get_device(libusb_device_handle* handle) {
    World& world = World::instance();
    const std::lock_guard lock(world.mutex);
    const HandlePointer found = world.find(handle, "get-device");
    return found ? found->device.get() : nullptr;
}

int libusb_claim_interface(libusb_device_handle* handle, int number) {
    return on_handle(handle, "claim", std::to_string(number),
                     [&](World& world, libusb_device_handle& found, Peripheral& peripheral) {
                         return claim(world, found, peripheral, number);
                     });
}

int libusb_release_interface(libusb_device_handle* handle, int number) {
    return on_handle(handle, "release", std::to_string(number),
                     [&](World&, libusb_device_handle& found, Peripheral&) -> Outcome {
                         if (number < 0 || number > highest_interface) {
                             return {LIBUSB_ERROR_INVALID_PARAM, false};
                         }
                         if (found.claims.erase(static_cast<std::uint8_t>(number)) == 0) {
                             return {LIBUSB_ERROR_NOT_FOUND, false};
                         }
                         return {is_alive(found) ? LIBUSB_SUCCESS : LIBUSB_ERROR_NO_DEVICE, false};
                     });
}

int libusb_kernel_driver_active(libusb_device_handle* handle, int number) {
    return guarded<int>(LIBUSB_ERROR_OTHER, [&]() -> int {
        World& world = World::instance();
        const std::lock_guard lock(world.mutex);
        const HandlePointer found = world.find(handle, "kernel-driver-active");
        if (!found || !is_alive(*found)) {
            return LIBUSB_ERROR_NO_DEVICE;
        }
        return number >= 0 && number <= highest_interface &&
                       found->device->peripheral->driver_bound(static_cast<std::uint8_t>(number))
                   ? 1
                   : 0;
    });
}

int libusb_detach_kernel_driver(libusb_device_handle* handle, int number) {
    return on_handle(handle, "detach", std::to_string(number),
                     [&](World&, libusb_device_handle& found, Peripheral& peripheral) {
                         return detach(found, peripheral, number);
                     });
}

int libusb_attach_kernel_driver(libusb_device_handle* handle, int number) {
    return on_handle(handle, "attach", std::to_string(number),
                     [&](World& world, libusb_device_handle& found, Peripheral& peripheral) {
                         return attach(world, found, peripheral, number);
                     });
}

int libusb_get_configuration(libusb_device_handle* handle, int* configuration) {
    World& world = World::instance();
    const std::lock_guard lock(world.mutex);
    const HandlePointer found = world.find(handle, "get-configuration");
    if (!found || !is_alive(*found)) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    *configuration = zelfsim::configuration_value;
    return LIBUSB_SUCCESS;
}

int libusb_set_configuration(libusb_device_handle* handle, int configuration) {
    return on_handle(handle, "set-configuration", std::to_string(configuration),
                     [&](World&, libusb_device_handle& found, Peripheral&) {
                         return set_configuration(found, configuration);
                     });
}

int libusb_set_interface_alt_setting(libusb_device_handle* handle, int number, int setting) {
    return on_handle(
        handle, "set-interface", std::to_string(setting),
        [&](World&, libusb_device_handle& found, Peripheral&) -> Outcome {
            if (!is_alive(found)) {
                return {LIBUSB_ERROR_NO_DEVICE, false};
            }
            const bool known = number >= 0 && number <= highest_interface &&
                               found.claims.contains(static_cast<std::uint8_t>(number));
            return {known && setting == 0 ? LIBUSB_SUCCESS : LIBUSB_ERROR_NOT_FOUND, false};
        });
}

int libusb_clear_halt(libusb_device_handle* handle, unsigned char endpoint) {
    return on_handle(handle, "clear-halt", std::to_string(endpoint),
                     [&](World&, libusb_device_handle& found, Peripheral& peripheral) -> Outcome {
                         if (!is_alive(found)) {
                             return {LIBUSB_ERROR_NO_DEVICE, false};
                         }
                         if (peripheral.interface_of_endpoint(endpoint) == nullptr) {
                             return {LIBUSB_ERROR_NOT_FOUND, false};
                         }
                         peripheral.clear_halt(endpoint);
                         return {};
                     });
}

int libusb_reset_device(libusb_device_handle* handle) {
    return on_handle(handle, "reset-device", {},
                     [&](World&, libusb_device_handle& found, Peripheral& peripheral) -> Outcome {
                         if (!is_alive(found)) {
                             return {LIBUSB_ERROR_NO_DEVICE, false};
                         }
                         peripheral.port_reset();
                         return {};
                     });
}

}  // extern "C"
