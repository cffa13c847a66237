// A shared object with the names of libusb, to be found and bound but not to be used. What it lacks
// or how it fails is chosen when it is compiled.
#include <cstdio>
#include <cstdlib>

#define STUB(name)          \
    extern "C" int name();  \
    extern "C" int name() { \
        return 0;           \
    }

// The guard takes no library without it.
extern "C" const char zelfwsim_simulation;
extern "C" const char zelfwsim_simulation = 1;

extern "C" int libusb_init(void** context);

// Says which library was bound, and how often it was initialised.
extern "C" int libusb_init(void** context) {
    static int calls = 0;
    static char text[64];
    std::snprintf(text, sizeof text, "%s %d", LIBRARY_NAME, ++calls);
    setenv("BOUND_LIBRARY", text, 1);
    *context = text;
    return INIT_RESULT;
}

STUB(libusb_exit)
STUB(libusb_set_debug)
STUB(libusb_get_device_list)
STUB(libusb_free_device_list)
STUB(libusb_ref_device)
STUB(libusb_unref_device)
STUB(libusb_get_configuration)
STUB(libusb_get_device_descriptor)
STUB(libusb_get_active_config_descriptor)
STUB(libusb_get_config_descriptor)
STUB(libusb_get_config_descriptor_by_value)
STUB(libusb_free_config_descriptor)
STUB(libusb_get_bus_number)
STUB(libusb_get_device_address)
STUB(libusb_get_max_packet_size)
STUB(libusb_open)
STUB(libusb_close)
STUB(libusb_get_device)
STUB(libusb_set_configuration)
STUB(libusb_claim_interface)
STUB(libusb_release_interface)
STUB(libusb_open_device_with_vid_pid)
STUB(libusb_set_interface_alt_setting)
STUB(libusb_clear_halt)
STUB(libusb_reset_device)
STUB(libusb_kernel_driver_active)
STUB(libusb_detach_kernel_driver)
STUB(libusb_alloc_transfer)
STUB(libusb_submit_transfer)
STUB(libusb_cancel_transfer)
STUB(libusb_free_transfer)
STUB(libusb_control_transfer)
STUB(libusb_bulk_transfer)
STUB(libusb_interrupt_transfer)
STUB(libusb_get_string_descriptor_ascii)
STUB(libusb_try_lock_events)
STUB(libusb_lock_events)
STUB(libusb_unlock_events)
STUB(libusb_event_handler_active)
STUB(libusb_lock_event_waiters)
STUB(libusb_unlock_event_waiters)
STUB(libusb_wait_for_event)
STUB(libusb_handle_events_timeout)
STUB(libusb_handle_events)
STUB(libusb_handle_events_locked)
STUB(libusb_get_next_timeout)
#ifndef WITHOUT_POLLFDS
STUB(libusb_get_pollfds)
#endif
STUB(libusb_set_pollfd_notifiers)
#ifndef WITHOUT_ATTACH
STUB(libusb_attach_kernel_driver)
#endif
