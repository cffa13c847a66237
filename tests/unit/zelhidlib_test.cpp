#include "zelhidlib.h"

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

}  // namespace

// The linker leads the binding's calls of the loader here. A system's own libusb must not be found
// in place of the test's, so names are looked up in one folder only.
extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier): the names that the linker's --wrap gives
int __real_lt_dlinit();
lt_dlhandle __real_lt_dlopen(const char* name);

int __wrap_lt_dlinit() {
    ++loader_starts;
    return loader_rc != 0 ? loader_rc : __real_lt_dlinit();
}

lt_dlhandle __wrap_lt_dlopen(const char* name) {
    tried.emplace_back(name);
    return __real_lt_dlopen(folder.empty() ? name : (folder + "/" + name).c_str());
}
// NOLINTEND(bugprone-reserved-identifier)
}

namespace {

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

TEST_F(Binding, DoesNothingASecondTime) {
    folder = folder_of("complete");
    ASSERT_EQ(LoadHidDlls(), 0);
    EXPECT_EQ(LoadHidDlls(), 0);
    EXPECT_EQ(bound_library(), "libusb-1.0.so 1");
    EXPECT_EQ(loader_starts, 1);
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
}

TEST_F(Binding, TellsThatTheLibraryCouldNotBeInitialised) {
    folder = folder_of("without_init");
    EXPECT_EQ(LoadHidDlls(), -1);
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

}  // namespace
