/// \file
/// The stand-in for the USB library, opened by name as the updater opens it.
#pragma once

#include <libusb-1.0/libusb.h>

#include <array>
#include <string>
#include <vector>

/// The functions that the updater binds.
extern const std::array<const char*, 50> usb_functions;

/// Looks up any symbol of the library; null when there is none.
void* usb_symbol(const char* name);

/// The functions that tests call, bound once.
struct UsbLibrary {
    static const UsbLibrary& get();

// NOLINTNEXTLINE(bugprone-macro-parentheses): a name can't stand in them
#define ZELF_BIND(name)             \
    decltype(&libusb_##name) name = \
        reinterpret_cast<decltype(&libusb_##name)>(usb_symbol("libusb_" #name))
    ZELF_BIND(init);
    ZELF_BIND(exit);
    ZELF_BIND(get_device_list);
    ZELF_BIND(free_device_list);
    ZELF_BIND(ref_device);
    ZELF_BIND(unref_device);
    ZELF_BIND(get_configuration);
    ZELF_BIND(get_device_descriptor);
    ZELF_BIND(get_active_config_descriptor);
    ZELF_BIND(get_config_descriptor);
    ZELF_BIND(get_config_descriptor_by_value);
    ZELF_BIND(free_config_descriptor);
    ZELF_BIND(get_bus_number);
    ZELF_BIND(get_device_address);
    ZELF_BIND(get_max_packet_size);
    ZELF_BIND(open);
    ZELF_BIND(close);
    ZELF_BIND(get_device);
    ZELF_BIND(set_configuration);
    ZELF_BIND(claim_interface);
    ZELF_BIND(release_interface);
    ZELF_BIND(open_device_with_vid_pid);
    ZELF_BIND(set_interface_alt_setting);
    ZELF_BIND(clear_halt);
    ZELF_BIND(reset_device);
    ZELF_BIND(kernel_driver_active);
    ZELF_BIND(detach_kernel_driver);
    ZELF_BIND(attach_kernel_driver);
    ZELF_BIND(alloc_transfer);
    ZELF_BIND(submit_transfer);
    ZELF_BIND(cancel_transfer);
    ZELF_BIND(free_transfer);
    ZELF_BIND(control_transfer);
    ZELF_BIND(bulk_transfer);
    ZELF_BIND(interrupt_transfer);
    ZELF_BIND(get_string_descriptor_ascii);
    ZELF_BIND(try_lock_events);
    ZELF_BIND(lock_events);
    ZELF_BIND(unlock_events);
    ZELF_BIND(event_handler_active);
    ZELF_BIND(wait_for_event);
    ZELF_BIND(handle_events_timeout);
    ZELF_BIND(get_next_timeout);
#undef ZELF_BIND
};

/// A context with its device list, freed at the end.
class UsbContext {
  public:
    UsbContext();
    ~UsbContext();
    UsbContext(const UsbContext&) = delete;
    UsbContext& operator=(const UsbContext&) = delete;

    libusb_context* get() const { return context_; }
    /// How many devices there are now.
    int count() const;
    /// The address of a product's first device; 0 when there is none.
    int address_of(int product) const;
    /// Opens a product's first device; fails the test when that cannot be.
    libusb_device_handle* open(int product) const;
    /// The same, giving the library's code.
    int try_open(int product, libusb_device_handle** handle) const;

  private:
    libusb_context* context_ = nullptr;
};

/// Sends a command as output report of interface 0.
int send_command(libusb_device_handle* handle, const std::vector<unsigned char>& bytes,
                 unsigned timeout = 1000);

/// A read of the endpoint: the library's code and what came.
struct Read {
    int code = 0;
    std::vector<unsigned char> data;
};
Read read_interrupt(libusb_device_handle* handle, unsigned timeout, int length = 64);
