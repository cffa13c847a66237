/// \file
/// The binding to libusb-1.0, which is opened by name at run time and never linked. All USB access
/// goes through the pointers declared here; each carries the prototype of the libusb function that
/// it is named after.
#pragma once

#include <libusb-1.0/libusb.h>
#include <ltdl.h>

using PLIBUSB_INIT = decltype(&libusb_init);
using PLIBUSB_EXIT = decltype(&libusb_exit);
/// Written out: newer headers mark the function as deprecated.
using PLIBUSB_SET_DEBUG = void(LIBUSB_CALL*)(libusb_context*, int);
using PLIBUSB_GET_DEVICE_LIST = decltype(&libusb_get_device_list);
using PLIBUSB_FREE_DEVICE_LIST = decltype(&libusb_free_device_list);
using PLIBUSB_REF_DEVICE = decltype(&libusb_ref_device);
using PLIBUSB_UNREF_DEVICE = decltype(&libusb_unref_device);
using PLIBUSB_GET_CONFIGURATION = decltype(&libusb_get_configuration);
using PLIBUSB_GET_DEVICE_DESCRIPTOR = decltype(&libusb_get_device_descriptor);
using PLIBUSB_GET_ACTIVE_CONFIG_DESCRIPTOR = decltype(&libusb_get_active_config_descriptor);
using PLIBUSB_GET_CONFIG_DESCRIPTOR = decltype(&libusb_get_config_descriptor);
using PLIBUSB_GET_CONFIG_DESCRIPTOR_BY_VALUE = decltype(&libusb_get_config_descriptor_by_value);
using PLIBUSB_FREE_CONFIG_DESCRIPTOR = decltype(&libusb_free_config_descriptor);
using PLIBUSB_GET_BUS_NUMBER = decltype(&libusb_get_bus_number);
using PLIBUSB_GET_DEVICE_ADDRESS = decltype(&libusb_get_device_address);
using PLIBUSB_GET_MAX_PACKET_SIZE = decltype(&libusb_get_max_packet_size);
using PLIBUSB_OPEN = decltype(&libusb_open);
using PLIBUSB_CLOSE = decltype(&libusb_close);
using PLIBUSB_GET_DEVICE = decltype(&libusb_get_device);
using PLIBUSB_SET_CONFIGURATION = decltype(&libusb_set_configuration);
using PLIBUSB_CLAIM_INTERFACE = decltype(&libusb_claim_interface);
using PLIBUSB_RELEASE_INTERFACE = decltype(&libusb_release_interface);
using PLIBUSB_OPEN_DEVICE_WITH_VID_PID = decltype(&libusb_open_device_with_vid_pid);
using PLIBUSB_SET_INTERFACE_ALT_SETTING = decltype(&libusb_set_interface_alt_setting);
using PLIBUSB_CLEAR_HALT = decltype(&libusb_clear_halt);
using PLIBUSB_RESET_DEVICE = decltype(&libusb_reset_device);
using PLIBUSB_KERNEL_DRIVER_ACTIVE = decltype(&libusb_kernel_driver_active);
using PLIBUSB_DETACH_KERNEL_DRIVER = decltype(&libusb_detach_kernel_driver);
using PLIBUSB_ALLOC_TRANSFER = decltype(&libusb_alloc_transfer);
using PLIBUSB_SUBMIT_TRANSFER = decltype(&libusb_submit_transfer);
using PLIBUSB_CANCEL_TRANSFER = decltype(&libusb_cancel_transfer);
using PLIBUSB_FREE_TRANSFER = decltype(&libusb_free_transfer);
using PLIBUSB_CONTROL_TRANSFER = decltype(&libusb_control_transfer);
using PLIBUSB_BULK_TRANSFER = decltype(&libusb_bulk_transfer);
using PLIBUSB_INTERRUPT_TRANSFER = decltype(&libusb_interrupt_transfer);
using PLIBUSB_GET_STRING_DESCRIPTOR_ASCII = decltype(&libusb_get_string_descriptor_ascii);
using PLIBUSB_TRY_LOCK_EVENTS = decltype(&libusb_try_lock_events);
using PLIBUSB_LOCK_EVENTS = decltype(&libusb_lock_events);
using PLIBUSB_UNLOCK_EVENTS = decltype(&libusb_unlock_events);
using PLIBUSB_EVENT_HANDLER_ACTIVE = decltype(&libusb_event_handler_active);
using PLIBUSB_LOCK_EVENT_WAITERS = decltype(&libusb_lock_event_waiters);
using PLIBUSB_UNLOCK_EVENT_WAITERS = decltype(&libusb_unlock_event_waiters);
using PLIBUSB_WAIT_FOR_EVENT = decltype(&libusb_wait_for_event);
using PLIBUSB_HANDLE_EVENTS_TIMEOUT = decltype(&libusb_handle_events_timeout);
using PLIBUSB_HANDLE_EVENTS = decltype(&libusb_handle_events);
using PLIBUSB_HANDLE_EVENTS_LOCKED = decltype(&libusb_handle_events_locked);
using PLIBUSB_GET_NEXT_TIMEOUT = decltype(&libusb_get_next_timeout);
using PLIBUSB_GET_POLLFDS = decltype(&libusb_get_pollfds);
using PLIBUSB_SET_POLLFD_NOTIFIERS = decltype(&libusb_set_pollfd_notifiers);
using PLIBUSB_ATTACH_KERNEL_DRIVER = decltype(&libusb_attach_kernel_driver);

// Null until `LoadHidDlls` has bound them.
extern PLIBUSB_INIT p_libusb_init;
extern PLIBUSB_EXIT p_libusb_exit;
extern PLIBUSB_SET_DEBUG p_libusb_set_debug;
extern PLIBUSB_GET_DEVICE_LIST p_libusb_get_device_list;
extern PLIBUSB_FREE_DEVICE_LIST p_libusb_free_device_list;
extern PLIBUSB_REF_DEVICE p_libusb_ref_device;
extern PLIBUSB_UNREF_DEVICE p_libusb_unref_device;
extern PLIBUSB_GET_CONFIGURATION p_libusb_get_configuration;
extern PLIBUSB_GET_DEVICE_DESCRIPTOR p_libusb_get_device_descriptor;
extern PLIBUSB_GET_ACTIVE_CONFIG_DESCRIPTOR p_libusb_get_active_config_descriptor;
extern PLIBUSB_GET_CONFIG_DESCRIPTOR p_libusb_get_config_descriptor;
extern PLIBUSB_GET_CONFIG_DESCRIPTOR_BY_VALUE p_libusb_get_config_descriptor_by_value;
extern PLIBUSB_FREE_CONFIG_DESCRIPTOR p_libusb_free_config_descriptor;
extern PLIBUSB_GET_BUS_NUMBER p_libusb_get_bus_number;
extern PLIBUSB_GET_DEVICE_ADDRESS p_libusb_get_device_address;
extern PLIBUSB_GET_MAX_PACKET_SIZE p_libusb_get_max_packet_size;
extern PLIBUSB_OPEN p_libusb_open;
extern PLIBUSB_CLOSE p_libusb_close;
extern PLIBUSB_GET_DEVICE p_libusb_get_device;
extern PLIBUSB_SET_CONFIGURATION p_libusb_set_configuration;
extern PLIBUSB_CLAIM_INTERFACE p_libusb_claim_interface;
extern PLIBUSB_RELEASE_INTERFACE p_libusb_release_interface;
extern PLIBUSB_OPEN_DEVICE_WITH_VID_PID p_libusb_open_device_with_vid_pid;
extern PLIBUSB_SET_INTERFACE_ALT_SETTING p_libusb_set_interface_alt_setting;
extern PLIBUSB_CLEAR_HALT p_libusb_clear_halt;
extern PLIBUSB_RESET_DEVICE p_libusb_reset_device;
extern PLIBUSB_KERNEL_DRIVER_ACTIVE p_libusb_kernel_driver_active;
extern PLIBUSB_DETACH_KERNEL_DRIVER p_libusb_detach_kernel_driver;
extern PLIBUSB_ALLOC_TRANSFER p_libusb_alloc_transfer;
extern PLIBUSB_SUBMIT_TRANSFER p_libusb_submit_transfer;
extern PLIBUSB_CANCEL_TRANSFER p_libusb_cancel_transfer;
extern PLIBUSB_FREE_TRANSFER p_libusb_free_transfer;
extern PLIBUSB_CONTROL_TRANSFER p_libusb_control_transfer;
extern PLIBUSB_BULK_TRANSFER p_libusb_bulk_transfer;
extern PLIBUSB_INTERRUPT_TRANSFER p_libusb_interrupt_transfer;
extern PLIBUSB_GET_STRING_DESCRIPTOR_ASCII p_libusb_get_string_descriptor_ascii;
extern PLIBUSB_TRY_LOCK_EVENTS p_libusb_try_lock_events;
extern PLIBUSB_LOCK_EVENTS p_libusb_lock_events;
extern PLIBUSB_UNLOCK_EVENTS p_libusb_unlock_events;
extern PLIBUSB_EVENT_HANDLER_ACTIVE p_libusb_event_handler_active;
extern PLIBUSB_LOCK_EVENT_WAITERS p_libusb_lock_event_waiters;
extern PLIBUSB_UNLOCK_EVENT_WAITERS p_libusb_unlock_event_waiters;
extern PLIBUSB_WAIT_FOR_EVENT p_libusb_wait_for_event;
extern PLIBUSB_HANDLE_EVENTS_TIMEOUT p_libusb_handle_events_timeout;
extern PLIBUSB_HANDLE_EVENTS p_libusb_handle_events;
extern PLIBUSB_HANDLE_EVENTS_LOCKED p_libusb_handle_events_locked;
extern PLIBUSB_GET_NEXT_TIMEOUT p_libusb_get_next_timeout;
extern PLIBUSB_GET_POLLFDS p_libusb_get_pollfds;
extern PLIBUSB_SET_POLLFD_NOTIFIERS p_libusb_set_pollfd_notifiers;
extern PLIBUSB_ATTACH_KERNEL_DRIVER p_libusb_attach_kernel_driver;

/// The opened library; null when nothing is open.
extern lt_dlhandle hLibUsb;

/// 1 once the binding has run to its end.
extern int FirstTime;

/// The context created at the end of the binding. Each `USBINTF` creates its own beside it.
extern libusb_context* context;

/// Opens "libusb-1.0.so" (or its versioned names) along the loader's search path and binds every
/// function. Call it once from the main thread before any device work; a call after success does
/// nothing. Returns 0 on success, 2 when the loader or the library is not there, 3 when a required
/// symbol is missing (the library is closed again), -1 when `libusb_init` failed.
int LoadHidDlls();

/// The library stays open until the process ends. Returns 0.
int UnloadHidDlls();

/// Looks `name` up in `h` and stores its address in `slot`. Returns 0, or 3 (and names the symbol
/// on console and log) when it is not there; the slot is then null, or untouched when `h` is null.
int load_address(lt_dlhandle h, const char* name, void** slot);

/// As `load_address`, but silent.
int load_address_optional(lt_dlhandle h, const char* name, void** slot);
