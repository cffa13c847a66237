#include "usb/zelhidlib.h"

#include "journal/output.h"

#include <array>
#include <string>
#include <type_traits>

PLIBUSB_INIT p_libusb_init;
PLIBUSB_EXIT p_libusb_exit;
PLIBUSB_SET_DEBUG p_libusb_set_debug;
PLIBUSB_GET_DEVICE_LIST p_libusb_get_device_list;
PLIBUSB_FREE_DEVICE_LIST p_libusb_free_device_list;
PLIBUSB_REF_DEVICE p_libusb_ref_device;
PLIBUSB_UNREF_DEVICE p_libusb_unref_device;
PLIBUSB_GET_CONFIGURATION p_libusb_get_configuration;
PLIBUSB_GET_DEVICE_DESCRIPTOR p_libusb_get_device_descriptor;
PLIBUSB_GET_ACTIVE_CONFIG_DESCRIPTOR p_libusb_get_active_config_descriptor;
PLIBUSB_GET_CONFIG_DESCRIPTOR p_libusb_get_config_descriptor;
PLIBUSB_GET_CONFIG_DESCRIPTOR_BY_VALUE p_libusb_get_config_descriptor_by_value;
PLIBUSB_FREE_CONFIG_DESCRIPTOR p_libusb_free_config_descriptor;
PLIBUSB_GET_BUS_NUMBER p_libusb_get_bus_number;
PLIBUSB_GET_DEVICE_ADDRESS p_libusb_get_device_address;
PLIBUSB_GET_MAX_PACKET_SIZE p_libusb_get_max_packet_size;
PLIBUSB_OPEN p_libusb_open;
PLIBUSB_CLOSE p_libusb_close;
PLIBUSB_GET_DEVICE p_libusb_get_device;
PLIBUSB_SET_CONFIGURATION p_libusb_set_configuration;
PLIBUSB_CLAIM_INTERFACE p_libusb_claim_interface;
PLIBUSB_RELEASE_INTERFACE p_libusb_release_interface;
PLIBUSB_OPEN_DEVICE_WITH_VID_PID p_libusb_open_device_with_vid_pid;
PLIBUSB_SET_INTERFACE_ALT_SETTING p_libusb_set_interface_alt_setting;
PLIBUSB_CLEAR_HALT p_libusb_clear_halt;
PLIBUSB_RESET_DEVICE p_libusb_reset_device;
PLIBUSB_KERNEL_DRIVER_ACTIVE p_libusb_kernel_driver_active;
PLIBUSB_DETACH_KERNEL_DRIVER p_libusb_detach_kernel_driver;
PLIBUSB_ALLOC_TRANSFER p_libusb_alloc_transfer;
PLIBUSB_SUBMIT_TRANSFER p_libusb_submit_transfer;
PLIBUSB_CANCEL_TRANSFER p_libusb_cancel_transfer;
PLIBUSB_FREE_TRANSFER p_libusb_free_transfer;
PLIBUSB_CONTROL_TRANSFER p_libusb_control_transfer;
PLIBUSB_BULK_TRANSFER p_libusb_bulk_transfer;
PLIBUSB_INTERRUPT_TRANSFER p_libusb_interrupt_transfer;
PLIBUSB_GET_STRING_DESCRIPTOR_ASCII p_libusb_get_string_descriptor_ascii;
PLIBUSB_TRY_LOCK_EVENTS p_libusb_try_lock_events;
PLIBUSB_LOCK_EVENTS p_libusb_lock_events;
PLIBUSB_UNLOCK_EVENTS p_libusb_unlock_events;
PLIBUSB_EVENT_HANDLER_ACTIVE p_libusb_event_handler_active;
PLIBUSB_LOCK_EVENT_WAITERS p_libusb_lock_event_waiters;
PLIBUSB_UNLOCK_EVENT_WAITERS p_libusb_unlock_event_waiters;
PLIBUSB_WAIT_FOR_EVENT p_libusb_wait_for_event;
PLIBUSB_HANDLE_EVENTS_TIMEOUT p_libusb_handle_events_timeout;
PLIBUSB_HANDLE_EVENTS p_libusb_handle_events;
PLIBUSB_HANDLE_EVENTS_LOCKED p_libusb_handle_events_locked;
PLIBUSB_GET_NEXT_TIMEOUT p_libusb_get_next_timeout;
PLIBUSB_GET_POLLFDS p_libusb_get_pollfds;
PLIBUSB_SET_POLLFD_NOTIFIERS p_libusb_set_pollfd_notifiers;
PLIBUSB_ATTACH_KERNEL_DRIVER p_libusb_attach_kernel_driver;

lt_dlhandle hLibUsb;
int FirstTime;
libusb_context* context;

namespace {

constexpr int library_not_found = 2;
constexpr int symbol_missing = 3;

template <auto& pointer>
void store(void* address) {
    pointer = reinterpret_cast<std::remove_reference_t<decltype(pointer)>>(address);
}

struct Binding {
    const char* name;
    void (*store)(void* address);
};

// In the order in which they are looked up: a library that lacks several is refused with the first.
constexpr std::array<Binding, 49> required_functions{{
    {"libusb_init", store<p_libusb_init>},
    {"libusb_exit", store<p_libusb_exit>},
    {"libusb_set_debug", store<p_libusb_set_debug>},
    {"libusb_get_device_list", store<p_libusb_get_device_list>},
    {"libusb_free_device_list", store<p_libusb_free_device_list>},
    {"libusb_ref_device", store<p_libusb_ref_device>},
    {"libusb_unref_device", store<p_libusb_unref_device>},
    {"libusb_get_configuration", store<p_libusb_get_configuration>},
    {"libusb_get_device_descriptor", store<p_libusb_get_device_descriptor>},
    {"libusb_get_active_config_descriptor", store<p_libusb_get_active_config_descriptor>},
    {"libusb_get_config_descriptor", store<p_libusb_get_config_descriptor>},
    {"libusb_get_config_descriptor_by_value", store<p_libusb_get_config_descriptor_by_value>},
    {"libusb_free_config_descriptor", store<p_libusb_free_config_descriptor>},
    {"libusb_get_bus_number", store<p_libusb_get_bus_number>},
    {"libusb_get_device_address", store<p_libusb_get_device_address>},
    {"libusb_get_max_packet_size", store<p_libusb_get_max_packet_size>},
    {"libusb_open", store<p_libusb_open>},
    {"libusb_close", store<p_libusb_close>},
    {"libusb_get_device", store<p_libusb_get_device>},
    {"libusb_set_configuration", store<p_libusb_set_configuration>},
    {"libusb_claim_interface", store<p_libusb_claim_interface>},
    {"libusb_release_interface", store<p_libusb_release_interface>},
    {"libusb_open_device_with_vid_pid", store<p_libusb_open_device_with_vid_pid>},
    {"libusb_set_interface_alt_setting", store<p_libusb_set_interface_alt_setting>},
    {"libusb_clear_halt", store<p_libusb_clear_halt>},
    {"libusb_reset_device", store<p_libusb_reset_device>},
    {"libusb_kernel_driver_active", store<p_libusb_kernel_driver_active>},
    {"libusb_detach_kernel_driver", store<p_libusb_detach_kernel_driver>},
    {"libusb_alloc_transfer", store<p_libusb_alloc_transfer>},
    {"libusb_submit_transfer", store<p_libusb_submit_transfer>},
    {"libusb_cancel_transfer", store<p_libusb_cancel_transfer>},
    {"libusb_free_transfer", store<p_libusb_free_transfer>},
    {"libusb_control_transfer", store<p_libusb_control_transfer>},
    {"libusb_bulk_transfer", store<p_libusb_bulk_transfer>},
    {"libusb_interrupt_transfer", store<p_libusb_interrupt_transfer>},
    {"libusb_get_string_descriptor_ascii", store<p_libusb_get_string_descriptor_ascii>},
    {"libusb_try_lock_events", store<p_libusb_try_lock_events>},
    {"libusb_lock_events", store<p_libusb_lock_events>},
    {"libusb_unlock_events", store<p_libusb_unlock_events>},
    {"libusb_event_handler_active", store<p_libusb_event_handler_active>},
    {"libusb_lock_event_waiters", store<p_libusb_lock_event_waiters>},
    {"libusb_unlock_event_waiters", store<p_libusb_unlock_event_waiters>},
    {"libusb_wait_for_event", store<p_libusb_wait_for_event>},
    {"libusb_handle_events_timeout", store<p_libusb_handle_events_timeout>},
    {"libusb_handle_events", store<p_libusb_handle_events>},
    {"libusb_handle_events_locked", store<p_libusb_handle_events_locked>},
    {"libusb_get_next_timeout", store<p_libusb_get_next_timeout>},
    {"libusb_get_pollfds", store<p_libusb_get_pollfds>},
    {"libusb_set_pollfd_notifiers", store<p_libusb_set_pollfd_notifiers>},
}};

constexpr Binding optional_function{"libusb_attach_kernel_driver",
                                    store<p_libusb_attach_kernel_driver>};

using Lookup = int (*)(lt_dlhandle, const char*, void**);

int bind(const Binding& binding, Lookup look_up) {
    void* address = nullptr;
    const int rc = look_up(hLibUsb, binding.name, &address);
    binding.store(address);
    return rc;
}

lt_dlhandle open_library() {
    std::string name = "libusb-1.0.so";
    lt_dlhandle library = lt_dlopen(name.c_str());
    for (const char* version : {".0", ".0.0"}) {
        if (library == nullptr) {
            library = lt_dlopen((name += version).c_str());
        }
    }
    return library;
}

}  // namespace

int load_address_optional(lt_dlhandle h, const char* name, void** slot) {
    if (h == nullptr) {
        return symbol_missing;
    }
    *slot = lt_dlsym(h, name);
    return *slot != nullptr ? 0 : symbol_missing;
}

int load_address(lt_dlhandle h, const char* name, void** slot) {
    const int rc = load_address_optional(h, name, slot);
    if (rc != 0) {
        writelog(1, "Failed finding symbol '%s'\n", name);
    }
    return rc;
}

int LoadHidDlls() {
    if (FirstTime != 0) {
        return 0;
    }
    if (lt_dlinit() != 0) {
        return library_not_found;
    }
    hLibUsb = open_library();
    if (hLibUsb == nullptr) {
        const char* error = lt_dlerror();
        writelog(1, "Failed loading libusb-1.0.so, error=%s\n", error != nullptr ? error : "");
        return library_not_found;
    }
    for (const Binding& binding : required_functions) {
        if (bind(binding, load_address) != 0) {
            static_cast<void>(lt_dlclose(hLibUsb));
            hLibUsb = nullptr;
            return symbol_missing;
        }
    }
    static_cast<void>(bind(optional_function, load_address_optional));
    // A thread of the library may still be inside it when the loader is shut down.
    static_cast<void>(lt_dlmakeresident(hLibUsb));
    FirstTime = 1;
    return p_libusb_init(&context) < 0 ? -1 : 0;
}

int UnloadHidDlls() {
    return 0;
}
