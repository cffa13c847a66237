#include "libusb/objects.h"

#include "model/device/descriptors.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <thread>
#include <utility>

namespace zelfsim::usb {

namespace {

/// Holds a value that outlives every thread.
template <typename Value>
union NeverDestroyed {
    Value value;
    NeverDestroyed() : value() {}
    ~NeverDestroyed() {}
    NeverDestroyed(const NeverDestroyed&) = delete;
    NeverDestroyed& operator=(const NeverDestroyed&) = delete;
};

std::uint16_t word(const Bytes& bytes, std::size_t at) {
    return static_cast<std::uint16_t>(bytes[at] | bytes[at + 1] << 8);
}

libusb_device_descriptor unpack(const Bytes& bytes) {
    libusb_device_descriptor descriptor{};
    descriptor.bLength = bytes[0];
    descriptor.bDescriptorType = bytes[1];
    descriptor.bcdUSB = word(bytes, 2);
    descriptor.bDeviceClass = bytes[4];
    descriptor.bDeviceSubClass = bytes[5];
    descriptor.bDeviceProtocol = bytes[6];
    descriptor.bMaxPacketSize0 = bytes[7];
    descriptor.idVendor = word(bytes, 8);
    descriptor.idProduct = word(bytes, 10);
    descriptor.bcdDevice = word(bytes, 12);
    descriptor.iManufacturer = bytes[14];
    descriptor.iProduct = bytes[15];
    descriptor.iSerialNumber = bytes[16];
    descriptor.bNumConfigurations = bytes[17];
    return descriptor;
}

}  // namespace

World& World::instance() {
    static NeverDestroyed<World> world;
    return world.value;
}

libusb_context* World::add_context(bool is_default) {
    if (is_default && default_context_ != nullptr) {
        ++default_context_->uses;
        return default_context_;
    }
    if (contexts_.empty()) {
        bus_ = std::make_shared<Bus>(BusFiles::from_environment());
    }
    auto context = std::make_unique<libusb_context>();
    libusb_context* pointer = context.get();
    contexts_.emplace(pointer, std::move(context));
    if (is_default) {
        default_context_ = pointer;
    }
    bus_->log().write({}, 0, "init", {}, {}, 0);
    return pointer;
}

void World::remove_context(libusb_context* context) {
    context = find(context);
    if (context == nullptr || --context->uses > 0) {
        return;
    }
    bus_->log().write({}, 0, "exit", {}, {}, 0);
    if (context == default_context_) {
        default_context_ = nullptr;
    }
    contexts_.erase(context);
    if (contexts_.empty()) {
        bus_.reset();
    }
}

libusb_context* World::find(libusb_context* context) {
    if (context == nullptr) {
        return default_context_;
    }
    return contexts_.contains(context) ? context : nullptr;
}

libusb_device* World::reference_present(libusb_context* context, Peripheral& peripheral) {
    for (const auto& [pointer, device] : devices_) {
        if (device->context == context && device->bus == bus_ &&
            device->peripheral == &peripheral && device->connection == peripheral.connection()) {
            ++device->references;
            return pointer;
        }
    }
    auto device = std::make_shared<libusb_device>();
    const DeviceDescription& description = peripheral.description();
    device->context = context;
    device->bus = bus_;
    device->peripheral = &peripheral;
    device->connection = peripheral.connection();
    device->bus_number = description.bus;
    device->address = peripheral.address();
    device->descriptor = unpack(device_descriptor(description, peripheral.state().bcd));
    device->configuration = configuration_descriptor(description);
    libusb_device* pointer = device.get();
    devices_.emplace(pointer, std::move(device));
    return pointer;
}

std::shared_ptr<libusb_device> World::find(libusb_device* device) const {
    const auto found = devices_.find(device);
    return found == devices_.end() ? nullptr : found->second;
}

void World::unreference(libusb_device* device) {
    if (devices_.contains(device) && --device->references == 0) {
        devices_.erase(device);
    }
}

libusb_device_handle* World::add_handle(const std::shared_ptr<libusb_device>& device) {
    auto handle = std::make_shared<libusb_device_handle>();
    handle->device = device;
    ++device->references;
    handles_.emplace(handle.get(), handle);
    return handle.get();
}

HandlePointer World::find(libusb_device_handle* handle, std::string_view caller) {
    const auto found = handles_.find(handle);
    if (found != handles_.end()) {
        return found->second;
    }
    if (bus_) {
        bus_->log().write({}, 0, "misuse", caller, {}, LIBUSB_ERROR_NO_DEVICE);
    }
    return nullptr;
}

void World::remove_handle(const HandlePointer& handle) {
    handle->closed = true;
    handle->claims.clear();
    unreference(handle->device.get());
    handles_.erase(handle.get());
}

bool World::claimed(const Peripheral& peripheral, std::uint8_t interface) const {
    return std::any_of(handles_.begin(), handles_.end(), [&](const auto& entry) {
        const libusb_device_handle& handle = *entry.second;
        return handle.device->peripheral == &peripheral &&
               handle.device->connection == peripheral.connection() &&
               handle.claims.contains(interface);
    });
}

void World::claim(libusb_device_handle& handle, std::uint8_t interface) {
    handle.claims[interface] = ++claims_;
}

bool alive(const libusb_device_handle& handle, TimePoint time) {
    if (handle.closed) {
        return false;
    }
    Peripheral& peripheral = *handle.device->peripheral;
    peripheral.advance(time);
    return peripheral.attached() && peripheral.connection() == handle.device->connection;
}

void record(const libusb_device_handle& handle, std::string_view kind, std::string_view setup,
            ByteView data, long result) {
    const libusb_device& device = *handle.device;
    device.bus->log().write(device.peripheral->description().name, device.address, kind, setup,
                            data, result);
}

int code_of(Completion completion) {
    switch (completion) {
        case Completion::ok:
            return LIBUSB_SUCCESS;
        case Completion::stall:
            return LIBUSB_ERROR_PIPE;
        case Completion::no_device:
            return LIBUSB_ERROR_NO_DEVICE;
        case Completion::timeout:
            return LIBUSB_ERROR_TIMEOUT;
        case Completion::overflow:
            return LIBUSB_ERROR_OVERFLOW;
        case Completion::io_error:
        case Completion::crash:
            break;
    }
    return LIBUSB_ERROR_IO;
}

void send_signal(const std::optional<SentSignal>& signal) {
    if (signal && signal->delay > Duration{0}) {
        std::thread([later = *signal] {
            std::this_thread::sleep_for(later.delay);
            kill(getpid(), later.number);
        }).detach();
    } else if (signal) {
        kill(getpid(), signal->number);
    }
}

#if defined(__clang__)
__attribute__((no_sanitize("all")))
#else
__attribute__((no_sanitize("undefined", "address", "thread")))
#endif
void crash() {
    // The address comes from memory, so that the compiler cannot see what it is.
    volatile std::uintptr_t nowhere = 16;
    *reinterpret_cast<volatile int*>(nowhere) = 0;  // NOLINT(performance-no-int-to-ptr)
    std::abort();
}

}  // namespace zelfsim::usb
