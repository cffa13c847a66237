#include "usb/zelhidlib.h"

#include "support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdlib.h>

#include <string>
#include <vector>

namespace {

using testing::ElementsAre;

int loader_rc = 0;
int loader_starts = 0;
std::string folder;
std::vector<std::string> tried;
std::vector<std::string> looked_up;
/// The function that every library is to lack.
std::string missing;
int libraries_closed = 0;

}  // namespace

// The linker leads the binding's calls of the loader here. A system's own libusb must not be found
// in place of the test's, so names are looked up in one folder only.
extern "C" {

// The names that the linker's --wrap gives.
int __real_lt_dlinit();
lt_dlhandle __real_lt_dlopen(const char* name);
void* __real_lt_dlsym(lt_dlhandle library, const char* name);
int __real_lt_dlclose(lt_dlhandle library);

int __wrap_lt_dlinit() {
    ++loader_starts;
    return loader_rc != 0 ? loader_rc : __real_lt_dlinit();
}

lt_dlhandle __wrap_lt_dlopen(const char* name) {
    tried.emplace_back(name);
    return __real_lt_dlopen(folder.empty() ? name : (folder + "/" + name).c_str());
}

void* __wrap_lt_dlsym(lt_dlhandle library, const char* name) {
    looked_up.emplace_back(name);
    return name == missing ? nullptr : __real_lt_dlsym(library, name);
}

int __wrap_lt_dlclose(lt_dlhandle library) {
    ++libraries_closed;
    return __real_lt_dlclose(library);
}
}

namespace {

template <auto& pointer>
void* address() {
    return reinterpret_cast<void*>(pointer);
}

struct BoundFunction {
    std::string name;
    void* (*address)();
};

// In the order in which they are looked up; all are required but the last.
const std::vector<BoundFunction> functions{
    {"libusb_init", address<p_libusb_init>},
    {"libusb_exit", address<p_libusb_exit>},
    {"libusb_set_debug", address<p_libusb_set_debug>},
    {"libusb_get_device_list", address<p_libusb_get_device_list>},
    {"libusb_free_device_list", address<p_libusb_free_device_list>},
    {"libusb_ref_device", address<p_libusb_ref_device>},
    {"libusb_unref_device", address<p_libusb_unref_device>},
    {"libusb_get_configuration", address<p_libusb_get_configuration>},
    {"libusb_get_device_descriptor", address<p_libusb_get_device_descriptor>},
    {"libusb_get_active_config_descriptor", address<p_libusb_get_active_config_descriptor>},
    {"libusb_get_config_descriptor", address<p_libusb_get_config_descriptor>},
    {"libusb_get_config_descriptor_by_value", address<p_libusb_get_config_descriptor_by_value>},
    {"libusb_free_config_descriptor", address<p_libusb_free_config_descriptor>},
    {"libusb_get_bus_number", address<p_libusb_get_bus_number>},
    {"libusb_get_device_address", address<p_libusb_get_device_address>},
    {"libusb_get_max_packet_size", address<p_libusb_get_max_packet_size>},
    {"libusb_open", address<p_libusb_open>},
    {"libusb_close", address<p_libusb_close>},
    {"libusb_get_device", address<p_libusb_get_device>},
    {"libusb_set_configuration", address<p_libusb_set_configuration>},
    {"libusb_claim_interface", address<p_libusb_claim_interface>},
    {"libusb_release_interface", address<p_libusb_release_interface>},
    {"libusb_open_device_with_vid_pid", address<p_libusb_open_device_with_vid_pid>},
    {"libusb_set_interface_alt_setting", address<p_libusb_set_interface_alt_setting>},
    {"libusb_clear_halt", address<p_libusb_clear_halt>},
    {"libusb_reset_device", address<p_libusb_reset_device>},
    {"libusb_kernel_driver_active", address<p_libusb_kernel_driver_active>},
    {"libusb_detach_kernel_driver", address<p_libusb_detach_kernel_driver>},
    {"libusb_alloc_transfer", address<p_libusb_alloc_transfer>},
    {"libusb_submit_transfer", address<p_libusb_submit_transfer>},
    {"libusb_cancel_transfer", address<p_libusb_cancel_transfer>},
    {"libusb_free_transfer", address<p_libusb_free_transfer>},
    {"libusb_control_transfer", address<p_libusb_control_transfer>},
    {"libusb_bulk_transfer", address<p_libusb_bulk_transfer>},
    {"libusb_interrupt_transfer", address<p_libusb_interrupt_transfer>},
    {"libusb_get_string_descriptor_ascii", address<p_libusb_get_string_descriptor_ascii>},
    {"libusb_try_lock_events", address<p_libusb_try_lock_events>},
    {"libusb_lock_events", address<p_libusb_lock_events>},
    {"libusb_unlock_events", address<p_libusb_unlock_events>},
    {"libusb_event_handler_active", address<p_libusb_event_handler_active>},
    {"libusb_lock_event_waiters", address<p_libusb_lock_event_waiters>},
    {"libusb_unlock_event_waiters", address<p_libusb_unlock_event_waiters>},
    {"libusb_wait_for_event", address<p_libusb_wait_for_event>},
    {"libusb_handle_events_timeout", address<p_libusb_handle_events_timeout>},
    {"libusb_handle_events", address<p_libusb_handle_events>},
    {"libusb_handle_events_locked", address<p_libusb_handle_events_locked>},
    {"libusb_get_next_timeout", address<p_libusb_get_next_timeout>},
    {"libusb_get_pollfds", address<p_libusb_get_pollfds>},
    {"libusb_set_pollfd_notifiers", address<p_libusb_set_pollfd_notifiers>},
    {"libusb_attach_kernel_driver", address<p_libusb_attach_kernel_driver>},
};

std::string folder_of(const std::string& library) {
    return std::string(ZELF_BINDING_DIR) + "/" + library;
}

// Each test has its own process: nothing is bound before it.
class Binding : public testing::Test {
  protected:
    static std::string bound_library() {
        const char* text = getenv("BOUND_LIBRARY");
        return text != nullptr ? text : "";
    }
    LogCapture log{1};
};

}  // namespace

TEST_F(Binding, FindsTheLibraryAlongTheSearchPath) {
    ASSERT_EQ(__real_lt_dlinit(), 0);
    ASSERT_EQ(lt_dladdsearchdir(folder_of("complete").c_str()), 0);
    EXPECT_EQ(LoadHidDlls(), 0);
    EXPECT_EQ(bound_library(), "libusb-1.0.so 1");
}

TEST_F(Binding, BindsEveryFunctionAndInitialisesTheLibrary) {
    folder = folder_of("complete");
    EXPECT_EQ(LoadHidDlls(), 0);
    EXPECT_EQ(bound_library(), "libusb-1.0.so 1");
    EXPECT_EQ(FirstTime, 1);
    EXPECT_NE(hLibUsb, nullptr);
    EXPECT_NE(context, nullptr);
    EXPECT_NE(p_libusb_set_pollfd_notifiers, nullptr);
    EXPECT_NE(p_libusb_attach_kernel_driver, nullptr);
    EXPECT_EQ(reinterpret_cast<void*>(p_libusb_control_transfer),
              lt_dlsym(hLibUsb, "libusb_control_transfer"));
    EXPECT_EQ(log.text(), "");
}

TEST_F(Binding, LooksEachFunctionUpInOrderAndBindsItByItsName) {
    folder = folder_of("complete");
    ASSERT_EQ(LoadHidDlls(), 0);
    ASSERT_EQ(looked_up.size(), functions.size());
    for (std::size_t i = 0; i < functions.size(); ++i) {
        EXPECT_EQ(looked_up[i], functions[i].name);
        EXPECT_NE(functions[i].address(), nullptr) << functions[i].name;
        EXPECT_EQ(functions[i].address(), __real_lt_dlsym(hLibUsb, functions[i].name.c_str()))
            << functions[i].name;
    }
    EXPECT_EQ(libraries_closed, 0);
}

TEST_F(Binding, IsRefusedWithoutAnyOneFunctionButTheLast) {
    folder = folder_of("complete");
    for (std::size_t i = 0; i + 1 < functions.size(); ++i) {
        missing = functions[i].name;
        EXPECT_EQ(LoadHidDlls(), 3) << missing;
        EXPECT_EQ(log.count("Failed finding symbol '" + missing + "'\n"), 1);
        EXPECT_EQ(libraries_closed, static_cast<int>(i) + 1);
        EXPECT_EQ(hLibUsb, nullptr);
        EXPECT_EQ(FirstTime, 0);
    }
    EXPECT_EQ(log.count("Failed"), 49);
    EXPECT_EQ(bound_library(), "");
    missing = functions.back().name;
    EXPECT_EQ(LoadHidDlls(), 0);
    EXPECT_EQ(log.count("Failed"), 49);
}

TEST_F(Binding, KeepsWhatWasBoundBeforeAMissingFunction) {
    folder = folder_of("complete");
    missing = "libusb_open";
    ASSERT_EQ(LoadHidDlls(), 3);
    EXPECT_EQ(looked_up.back(), missing);
    EXPECT_NE(p_libusb_init, nullptr);
    EXPECT_NE(p_libusb_get_max_packet_size, nullptr);
    EXPECT_EQ(p_libusb_open, nullptr);
    EXPECT_EQ(p_libusb_close, nullptr);
}

TEST_F(Binding, DoesNothingASecondTime) {
    folder = folder_of("complete");
    ASSERT_EQ(LoadHidDlls(), 0);
    EXPECT_EQ(LoadHidDlls(), 0);
    EXPECT_EQ(bound_library(), "libusb-1.0.so 1");
    EXPECT_EQ(loader_starts, 1);
    EXPECT_EQ(looked_up.size(), functions.size());
}

TEST_F(Binding, StaysOpenWhenUnloaded) {
    folder = folder_of("complete");
    ASSERT_EQ(LoadHidDlls(), 0);
    EXPECT_EQ(UnloadHidDlls(), 0);
    EXPECT_NE(hLibUsb, nullptr);
    EXPECT_EQ(FirstTime, 1);
}

TEST_F(Binding, FallsBackToTheRuntimeName) {
    folder = folder_of("runtime");
    EXPECT_EQ(LoadHidDlls(), 0);
    EXPECT_EQ(bound_library(), "libusb-1.0.so.0 1");
    EXPECT_THAT(tried, ElementsAre("libusb-1.0.so", "libusb-1.0.so.0"));
}

TEST_F(Binding, FallsBackToTheFullVersion) {
    folder = folder_of("versioned");
    EXPECT_EQ(LoadHidDlls(), 0);
    EXPECT_EQ(bound_library(), "libusb-1.0.so.0.0.0 1");
    EXPECT_THAT(tried, ElementsAre("libusb-1.0.so", "libusb-1.0.so.0", "libusb-1.0.so.0.0.0"));
}

TEST_F(Binding, DoesWithoutAttaching) {
    folder = folder_of("without_attach");
    EXPECT_EQ(LoadHidDlls(), 0);
    EXPECT_EQ(p_libusb_attach_kernel_driver, nullptr);
    EXPECT_NE(p_libusb_set_pollfd_notifiers, nullptr);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Binding, RefusesALibraryThatLacksAnyOtherFunction) {
    folder = folder_of("without_pollfds");
    EXPECT_EQ(LoadHidDlls(), 3);
    EXPECT_EQ(log.text(), "Failed finding symbol 'libusb_get_pollfds'\n");
    EXPECT_EQ(hLibUsb, nullptr);
    EXPECT_EQ(FirstTime, 0);
    EXPECT_EQ(p_libusb_get_pollfds, nullptr);
    EXPECT_EQ(p_libusb_set_pollfd_notifiers, nullptr);
    EXPECT_EQ(bound_library(), "");
}

TEST_F(Binding, StartsAgainAfterAFailure) {
    folder = folder_of("without_pollfds");
    ASSERT_EQ(LoadHidDlls(), 3);
    folder = folder_of("complete");
    EXPECT_EQ(LoadHidDlls(), 0);
    EXPECT_EQ(bound_library(), "libusb-1.0.so 1");
    EXPECT_EQ(loader_starts, 2);
}

TEST_F(Binding, TellsThatTheLibraryCouldNotBeInitialised) {
    folder = folder_of("without_init");
    EXPECT_EQ(LoadHidDlls(), -1);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(FirstTime, 1);
    EXPECT_EQ(LoadHidDlls(), 0);
    EXPECT_EQ(bound_library(), "libusb-1.0.so 1");
}

TEST_F(Binding, TellsThatThereIsNoLibrary) {
    folder = folder_of("nowhere");
    EXPECT_EQ(LoadHidDlls(), 2);
    EXPECT_THAT(tried, ElementsAre("libusb-1.0.so", "libusb-1.0.so.0", "libusb-1.0.so.0.0.0"));
    EXPECT_THAT(log.text(), testing::MatchesRegex("Failed loading libusb-1.0.so, error=.+\n"));
    EXPECT_EQ(FirstTime, 0);
    EXPECT_EQ(hLibUsb, nullptr);
}

TEST_F(Binding, EndsWhenTheLoaderDoesNotStart) {
    loader_rc = 1;
    EXPECT_EQ(LoadHidDlls(), 2);
    EXPECT_THAT(tried, ElementsAre());
    EXPECT_EQ(FirstTime, 0);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Binding, LooksUpNothingInALibraryThatIsNotOpen) {
    int untouched = 0;
    void* slot = &untouched;
    EXPECT_EQ(load_address(nullptr, "libusb_init", &slot), 3);
    EXPECT_EQ(load_address_optional(nullptr, "libusb_init", &slot), 3);
    EXPECT_EQ(slot, &untouched);
    EXPECT_EQ(log.text(), "Failed finding symbol 'libusb_init'\n");
}

TEST_F(Binding, ClearsTheSlotOfASymbolThatIsNotThere) {
    folder = folder_of("complete");
    ASSERT_EQ(LoadHidDlls(), 0);
    int other = 0;
    void* slot = &other;
    EXPECT_EQ(load_address(hLibUsb, "libusb_nothing", &slot), 3);
    EXPECT_EQ(slot, nullptr);
    EXPECT_EQ(log.text(), "Failed finding symbol 'libusb_nothing'\n");
    slot = &other;
    EXPECT_EQ(load_address_optional(hLibUsb, "libusb_nothing", &slot), 3);
    EXPECT_EQ(slot, nullptr);
    EXPECT_EQ(load_address_optional(hLibUsb, "libusb_open", &slot), 0);
    EXPECT_NE(slot, nullptr);
    EXPECT_EQ(log.count("Failed"), 1);
}
