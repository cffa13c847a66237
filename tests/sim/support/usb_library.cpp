#include "support/usb_library.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

const std::array<const char*, 50> usb_functions{
    "libusb_init",
    "libusb_exit",
    "libusb_set_debug",
    "libusb_get_device_list",
    "libusb_free_device_list",
    "libusb_ref_device",
    "libusb_unref_device",
    "libusb_get_configuration",
    "libusb_get_device_descriptor",
    "libusb_get_active_config_descriptor",
    "libusb_get_config_descriptor",
    "libusb_get_config_descriptor_by_value",
    "libusb_free_config_descriptor",
    "libusb_get_bus_number",
    "libusb_get_device_address",
    "libusb_get_max_packet_size",
    "libusb_open",
    "libusb_close",
    "libusb_get_device",
    "libusb_set_configuration",
    "libusb_claim_interface",
    "libusb_release_interface",
    "libusb_open_device_with_vid_pid",
    "libusb_set_interface_alt_setting",
    "libusb_clear_halt",
    "libusb_reset_device",
    "libusb_kernel_driver_active",
    "libusb_detach_kernel_driver",
    "libusb_alloc_transfer",
    "libusb_submit_transfer",
    "libusb_cancel_transfer",
    "libusb_free_transfer",
    "libusb_control_transfer",
    "libusb_bulk_transfer",
    "libusb_interrupt_transfer",
    "libusb_get_string_descriptor_ascii",
    "libusb_try_lock_events",
    "libusb_lock_events",
    "libusb_unlock_events",
    "libusb_event_handler_active",
    "libusb_lock_event_waiters",
    "libusb_unlock_event_waiters",
    "libusb_wait_for_event",
    "libusb_handle_events_timeout",
    "libusb_handle_events",
    "libusb_handle_events_locked",
    "libusb_get_next_timeout",
    "libusb_get_pollfds",
    "libusb_set_pollfd_notifiers",
    "libusb_attach_kernel_driver",
};

void* usb_symbol(const char* name) {
    static void* library = dlopen(ZELFWSIM_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        ADD_FAILURE() << dlerror();
        return nullptr;
    }
    return dlsym(library, name);
}

const UsbLibrary& UsbLibrary::get() {
    static const UsbLibrary library;
    return library;
}

UsbContext::UsbContext() {
    EXPECT_EQ(UsbLibrary::get().init(&context_), 0);
}

UsbContext::~UsbContext() {
    UsbLibrary::get().exit(context_);
}

int UsbContext::count() const {
    libusb_device** list = nullptr;
    const auto count = UsbLibrary::get().get_device_list(context_, &list);
    UsbLibrary::get().free_device_list(list, 1);
    return static_cast<int>(count);
}

namespace {

/// Calls `visit` with a product's first device; false when there is none.
template <typename Visit>
bool with_device(libusb_context* context, int product, const Visit& visit) {
    const UsbLibrary& usb = UsbLibrary::get();
    libusb_device** list = nullptr;
    const auto count = usb.get_device_list(context, &list);
    bool found = false;
    for (ssize_t index = 0; index < count && !found; ++index) {
        libusb_device_descriptor descriptor{};
        EXPECT_EQ(usb.get_device_descriptor(list[index], &descriptor), 0);
        if (descriptor.idProduct == product) {
            found = true;
            visit(list[index]);
        }
    }
    usb.free_device_list(list, 1);
    return found;
}

}  // namespace

int UsbContext::address_of(int product) const {
    int address = 0;
    with_device(context_, product, [&](libusb_device* device) {
        address = UsbLibrary::get().get_device_address(device);
    });
    return address;
}

int UsbContext::try_open(int product, libusb_device_handle** handle) const {
    int code = LIBUSB_ERROR_NO_DEVICE;
    with_device(context_, product,
                [&](libusb_device* device) { code = UsbLibrary::get().open(device, handle); });
    return code;
}

libusb_device_handle* UsbContext::open(int product) const {
    libusb_device_handle* handle = nullptr;
    EXPECT_EQ(try_open(product, &handle), 0);
    return handle;
}

int send_command(libusb_device_handle* handle, const std::vector<unsigned char>& bytes,
                 unsigned timeout) {
    std::vector<unsigned char> copy = bytes;
    return UsbLibrary::get().control_transfer(handle, 0x21, 9, 0x0200, 0, copy.data(),
                                              static_cast<std::uint16_t>(copy.size()), timeout);
}

Read read_interrupt(libusb_device_handle* handle, unsigned timeout, int length) {
    Read read;
    read.data.resize(static_cast<std::size_t>(length));
    int actual = -1;
    read.code = UsbLibrary::get().interrupt_transfer(handle, 0x81, read.data.data(), length,
                                                     &actual, timeout);
    read.data.resize(static_cast<std::size_t>(actual < 0 ? 0 : actual));
    return read;
}
