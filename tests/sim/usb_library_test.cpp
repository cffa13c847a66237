// The USB library's stand-in: lists, descriptors, claims, control transfers.
#include "support/usb_library.h"

#include "support/bench.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <thread>

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;

constexpr int generous = 30000;  // milliseconds
const std::vector<unsigned char> device_info{0x03, 0x00, 0x00, 0x00, 0x01};
const std::vector<unsigned char> reset{0x04, 0x00, 0x00, 0x40};

class Usb : public testing::Test {
  protected:
    void use(const std::string& bus = printer_bus()) const { workspace.use_bus(bus); }

    Workspace workspace;
    const UsbLibrary& usb = UsbLibrary::get();
};

}  // namespace

TEST_F(Usb, HasAllTheFunctionsThatAreBound) {
    for (const char* name : usb_functions) {
        EXPECT_NE(usb_symbol(name), nullptr) << name;
    }
}

TEST_F(Usb, ShowsNothingElseButItsMark) {
    const Outcome symbols = run("nm -D --defined-only " ZELFWSIM_LIBRARY " | grep -v ' libusb_'");
    EXPECT_THAT(symbols.output, EndsWith(" R zelfwsim_simulation\n"));
    EXPECT_EQ(std::count(symbols.output.begin(), symbols.output.end(), '\n'), 1);
}

TEST_F(Usb, RefusesToStartWithoutABusFile) {
    unsetenv("ZELFWSIM_BUS");
    libusb_context* context = nullptr;
    testing::internal::CaptureStderr();
    EXPECT_EQ(usb.init(&context), LIBUSB_ERROR_OTHER);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("ZELFWSIM_BUS: not set"));
}

TEST_F(Usb, RefusesToStartWithAWrongBusFile) {
    use("\nx = 1\n");
    libusb_context* context = nullptr;
    testing::internal::CaptureStderr();
    EXPECT_EQ(usb.init(&context), LIBUSB_ERROR_OTHER);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("bus.toml:2: unknown key"));
}

TEST_F(Usb, ListsDevicesByBusAndAddress) {
    use();
    const UsbContext context;
    libusb_device** list = nullptr;
    ASSERT_EQ(usb.get_device_list(context.get(), &list), 2);
    EXPECT_EQ(list[2], nullptr);
    EXPECT_EQ(usb.get_bus_number(list[0]), 1);
    EXPECT_EQ(usb.get_device_address(list[0]), 1);
    EXPECT_EQ(usb.get_device_address(list[1]), 2);
    libusb_device_descriptor descriptor{};
    ASSERT_EQ(usb.get_device_descriptor(list[0], &descriptor), 0);
    EXPECT_EQ(descriptor.bDeviceClass, 9);
    ASSERT_EQ(usb.get_device_descriptor(list[1], &descriptor), 0);
    EXPECT_EQ(descriptor.idVendor, 0x7A01);
    EXPECT_EQ(descriptor.bcdDevice, 0x0102);
    usb.free_device_list(list, 1);
}

TEST_F(Usb, KeepsADeviceThatIsReferenced) {
    use();
    const UsbContext context;
    libusb_device** list = nullptr;
    ASSERT_EQ(usb.get_device_list(context.get(), &list), 2);
    libusb_device* printer = usb.ref_device(list[1]);
    usb.free_device_list(list, 1);
    EXPECT_EQ(usb.get_device_address(printer), 2);
    libusb_device** again = nullptr;
    ASSERT_EQ(usb.get_device_list(context.get(), &again), 2);
    EXPECT_EQ(again[1], printer);
    usb.free_device_list(again, 1);
    usb.unref_device(printer);
}

TEST_F(Usb, GivesTheConfigurationAsATree) {
    use();
    const UsbContext context;
    libusb_device_handle* handle = context.open(printer_product);
    libusb_device* device = usb.get_device(handle);
    libusb_config_descriptor* config = nullptr;
    ASSERT_EQ(usb.get_active_config_descriptor(device, &config), 0);
    ASSERT_EQ(config->bNumInterfaces, 1);
    ASSERT_EQ(config->interface[0].num_altsetting, 1);
    const libusb_interface_descriptor& setting = config->interface[0].altsetting[0];
    EXPECT_EQ(setting.bInterfaceClass, 3);
    ASSERT_EQ(setting.bNumEndpoints, 1);
    EXPECT_EQ(setting.endpoint[0].bEndpointAddress, 0x81);
    EXPECT_EQ(setting.endpoint[0].wMaxPacketSize, 64);
    ASSERT_EQ(setting.extra_length, 9);
    EXPECT_EQ(setting.extra[1], 0x21);
    EXPECT_EQ(setting.extra[6], 0x22);
    usb.free_config_descriptor(config);
    EXPECT_EQ(usb.get_config_descriptor(device, 1, &config), LIBUSB_ERROR_NOT_FOUND);
    EXPECT_EQ(usb.get_config_descriptor_by_value(device, 2, &config), LIBUSB_ERROR_NOT_FOUND);
    ASSERT_EQ(usb.get_config_descriptor_by_value(device, 1, &config), 0);
    usb.free_config_descriptor(config);
    EXPECT_EQ(usb.get_max_packet_size(device, 0x81), 64);
    EXPECT_EQ(usb.get_max_packet_size(device, 0x05), LIBUSB_ERROR_NOT_FOUND);
    usb.close(handle);
}

TEST_F(Usb, ReadsStrings) {
    use();
    const UsbContext context;
    libusb_device_handle* handle = context.open(printer_product);
    std::array<unsigned char, 64> text{};
    EXPECT_EQ(usb.get_string_descriptor_ascii(handle, 3, text.data(), 64), 3);
    EXPECT_STREQ(reinterpret_cast<char*>(text.data()), "PR1");
    EXPECT_EQ(usb.get_string_descriptor_ascii(handle, 3, text.data(), 3), 2);
    EXPECT_EQ(usb.get_string_descriptor_ascii(handle, 99, text.data(), 64), LIBUSB_ERROR_PIPE);
    usb.close(handle);
}

TEST_F(Usb, ClaimsOnlyWhatNobodyHolds) {
    use();
    const UsbContext context;
    libusb_device_handle* handle = context.open(printer_product);
    EXPECT_EQ(usb.claim_interface(handle, 1), LIBUSB_ERROR_NOT_FOUND);
    EXPECT_EQ(usb.claim_interface(handle, 0), LIBUSB_ERROR_BUSY) << "the kernel driver";
    EXPECT_EQ(usb.kernel_driver_active(handle, 0), 1);
    EXPECT_EQ(usb.detach_kernel_driver(handle, 0), 0);
    EXPECT_EQ(usb.kernel_driver_active(handle, 0), 0);
    EXPECT_EQ(usb.detach_kernel_driver(handle, 0), LIBUSB_ERROR_NOT_FOUND);
    EXPECT_EQ(usb.claim_interface(handle, 0), 0);
    EXPECT_EQ(usb.claim_interface(handle, 0), 0) << "again by the same handle";
    libusb_device_handle* other = context.open(printer_product);
    EXPECT_EQ(usb.claim_interface(other, 0), LIBUSB_ERROR_BUSY);
    EXPECT_EQ(usb.attach_kernel_driver(other, 0), LIBUSB_ERROR_BUSY);
    EXPECT_EQ(usb.release_interface(handle, 0), 0);
    EXPECT_EQ(usb.release_interface(handle, 0), LIBUSB_ERROR_NOT_FOUND);
    EXPECT_EQ(usb.claim_interface(other, 0), 0) << "the driver does not come back by itself";
    usb.close(other);
    EXPECT_EQ(usb.claim_interface(handle, 0), 0) << "closing releases";
    usb.release_interface(handle, 0);
    EXPECT_EQ(usb.attach_kernel_driver(handle, 0), 0);
    EXPECT_EQ(usb.claim_interface(handle, 0), LIBUSB_ERROR_BUSY);
    usb.close(handle);
}

TEST_F(Usb, KeepsClaimsOfOtherContextsApart) {
    use(printer_bus("driver = false\n"));
    const UsbContext one;
    const UsbContext two;
    libusb_device_handle* first = one.open(printer_product);
    libusb_device_handle* second = two.open(printer_product);
    EXPECT_NE(usb.get_device(first), usb.get_device(second));
    EXPECT_EQ(usb.claim_interface(first, 0), 0);
    EXPECT_EQ(usb.claim_interface(second, 0), LIBUSB_ERROR_BUSY);
    usb.close(first);
    EXPECT_EQ(usb.claim_interface(second, 0), 0);
    usb.close(second);
}

TEST_F(Usb, ClaimsForATransferWhatIsFree) {
    use();
    const UsbContext context;
    libusb_device_handle* handle = context.open(printer_product);
    EXPECT_EQ(send_command(handle, device_info), LIBUSB_ERROR_IO) << "the kernel driver holds it";
    usb.detach_kernel_driver(handle, 0);
    EXPECT_EQ(send_command(handle, device_info), 5);
    libusb_device_handle* other = context.open(printer_product);
    EXPECT_EQ(send_command(other, device_info), LIBUSB_ERROR_IO);
    usb.close(other);
    usb.close(handle);
}

TEST_F(Usb, BindsTheDriverAgainAfterAReset) {
    std::string bus = printer_bus();
    // Away for long enough to be looked at.
    bus.replace(bus.find("reset_ms = 100"), 14, "reset_ms = 2000");
    use(bus);
    const UsbContext context;
    const int before = context.address_of(printer_product);
    libusb_device_handle* handle = context.open(printer_product);
    usb.detach_kernel_driver(handle, 0);
    EXPECT_EQ(send_command(handle, reset), 4);
    EXPECT_EQ(context.count(), 1) << "the root hub alone";
    EXPECT_EQ(send_command(handle, device_info), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(usb.claim_interface(handle, 0), LIBUSB_ERROR_NO_DEVICE);
    for (int waited = 0; context.count() < 2 && waited < generous; waited += 20) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_EQ(context.count(), 2);
    EXPECT_NE(context.address_of(printer_product), before);
    EXPECT_EQ(send_command(handle, device_info), LIBUSB_ERROR_NO_DEVICE) << "an old handle";
    libusb_device_handle* again = context.open(printer_product);
    EXPECT_EQ(usb.claim_interface(again, 0), LIBUSB_ERROR_BUSY);
    usb.close(again);
    usb.close(handle);
}

TEST_F(Usb, RefusesToOpenADeviceThatIsAway) {
    use();
    const UsbContext context;
    libusb_device** list = nullptr;
    ASSERT_EQ(usb.get_device_list(context.get(), &list), 2);
    libusb_device_handle* handle = context.open(printer_product);
    usb.detach_kernel_driver(handle, 0);
    send_command(handle, reset);
    libusb_device_handle* other = nullptr;
    EXPECT_EQ(usb.open(list[1], &other), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(other, nullptr);
    usb.free_device_list(list, 1);
    usb.close(handle);
}

TEST_F(Usb, StandsAHandleThatWasClosed) {
    use();
    const UsbContext context;
    libusb_device_handle* handle = context.open(printer_product);
    usb.close(handle);
    EXPECT_EQ(usb.claim_interface(handle, 0), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(send_command(handle, device_info), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(read_interrupt(handle, 10).code, LIBUSB_ERROR_NO_DEVICE);
    usb.close(handle);
    EXPECT_EQ(count_kind(read_record(workspace.record()), "misuse"), 4);
}

TEST_F(Usb, TimesOutWhenTheDeviceIsBusy) {
    std::string slow = printer_bus("driver = false\n");
    slow.replace(slow.find("erase_ms = 30"), 13, "erase_ms = 3000");
    use(slow);
    const UsbContext context;
    libusb_device_handle* handle = context.open(printer_product);
    EXPECT_EQ(send_command(handle, {0x04, 0x00, 0x01, 0x00}), 4);
    EXPECT_EQ(send_command(handle, device_info, 50), LIBUSB_ERROR_TIMEOUT);
    EXPECT_EQ(send_command(handle, device_info, generous), 5);
    usb.close(handle);
}

TEST_F(Usb, RecordsEveryTransferWithItsBytes) {
    use(printer_bus("driver = false\n"));
    {
        const UsbContext context;
        libusb_device_handle* handle = context.open(printer_product);
        usb.claim_interface(handle, 0);
        send_command(handle, device_info);
        read_interrupt(handle, 1000);
        usb.release_interface(handle, 0);
        usb.close(handle);
    }
    std::vector<std::string> kinds;
    double time = 0;
    for (const Transfer& line : read_record(workspace.record())) {
        kinds.push_back(line.kind);
        EXPECT_GE(line.time, time);
        time = line.time;
        if (line.kind == "control") {
            EXPECT_EQ(line.setup, "21 09 0200 0000 0005");
            EXPECT_EQ(line.data, "0300000001");
            EXPECT_EQ(line.result, 5);
            EXPECT_EQ(line.device, "printer");
            EXPECT_EQ(line.address, 2);
        } else if (line.kind == "interrupt") {
            EXPECT_EQ(line.setup, "81 0040");
            EXPECT_EQ(line.data, "09010101d0000000");
        }
    }
    EXPECT_THAT(kinds, ElementsAre("init", "list", "open", "claim", "control", "interrupt",
                                   "release", "close", "exit"));
}

TEST_F(Usb, RefusesToOpenWhenTheFaultSaysSo) {
    use(printer_with_fault("at = \"open\"\naction = \"refuse\"\n"));
    const UsbContext context;
    libusb_device_handle* handle = nullptr;
    EXPECT_EQ(context.try_open(printer_product, &handle), LIBUSB_ERROR_ACCESS);
    EXPECT_EQ(context.try_open(printer_product, &handle), 0);
    usb.close(handle);
}

TEST_F(Usb, KeepsTheInterfaceBusyWhenTheFaultSaysSo) {
    use(printer_with_fault("at = \"claim\"\naction = \"busy\"\ntimes = \"always\"\n"));
    const UsbContext context;
    libusb_device_handle* handle = context.open(printer_product);
    EXPECT_EQ(usb.detach_kernel_driver(handle, 0), 0);
    EXPECT_EQ(usb.claim_interface(handle, 0), LIBUSB_ERROR_BUSY);
    EXPECT_EQ(usb.claim_interface(handle, 0), LIBUSB_ERROR_BUSY);
    usb.close(handle);
}

TEST_F(Usb, RefusesToDetachWhenTheFaultSaysSo) {
    use(printer_with_fault("at = \"detach\"\naction = \"refuse\"\n"));
    const UsbContext context;
    libusb_device_handle* handle = context.open(printer_product);
    EXPECT_EQ(usb.detach_kernel_driver(handle, 0), LIBUSB_ERROR_OTHER);
    EXPECT_EQ(usb.kernel_driver_active(handle, 0), 1);
    usb.close(handle);
}

namespace {

using UsbDeathTest = Usb;

}  // namespace

TEST_F(UsbDeathTest, CrashesForRealWhenTheFaultSaysSo) {
    use(printer_with_fault("at = \"string\"\naction = \"crash\"\n"));
    const auto provoke = [&] {
        // A sanitizer would turn the signal into an exit of its own.
        (void)std::signal(SIGSEGV, SIG_DFL);
        const UsbContext context;
        std::array<unsigned char, 64> text{};
        usb.get_string_descriptor_ascii(context.open(printer_product), 3, text.data(), 64);
    };
    EXPECT_EXIT(provoke(), testing::KilledBySignal(SIGSEGV), "");
}

TEST_F(Usb, TakesCommandsOnAnOutEndpoint) {
    use(printer_bus("driver = false\nout_packet = 64\n"));
    const UsbContext context;
    libusb_device_handle* handle = context.open(printer_product);
    std::vector<unsigned char> message = device_info;
    int actual = 0;
    EXPECT_EQ(usb.interrupt_transfer(handle, 0x01, message.data(), 5, &actual, 1000), 0);
    EXPECT_EQ(actual, 5);
    EXPECT_EQ(read_interrupt(handle, 1000).data.at(0), 0x09);
    usb.close(handle);
}

TEST_F(Usb, ManagesConfigurationAndSettings) {
    use(printer_bus("driver = false\n"));
    const UsbContext context;
    libusb_device_handle* handle = context.open(printer_product);
    int configuration = 0;
    EXPECT_EQ(usb.get_configuration(handle, &configuration), 0);
    EXPECT_EQ(configuration, 1);
    EXPECT_EQ(usb.set_configuration(handle, 1), 0);
    EXPECT_EQ(usb.set_configuration(handle, 2), LIBUSB_ERROR_NOT_FOUND);
    EXPECT_EQ(usb.set_interface_alt_setting(handle, 0, 0), LIBUSB_ERROR_NOT_FOUND);
    usb.claim_interface(handle, 0);
    EXPECT_EQ(usb.set_configuration(handle, 1), LIBUSB_ERROR_BUSY);
    EXPECT_EQ(usb.set_interface_alt_setting(handle, 0, 0), 0);
    EXPECT_EQ(usb.set_interface_alt_setting(handle, 0, 1), LIBUSB_ERROR_NOT_FOUND);
    EXPECT_EQ(usb.clear_halt(handle, 0x81), 0);
    EXPECT_EQ(usb.clear_halt(handle, 0x8F), LIBUSB_ERROR_NOT_FOUND);
    EXPECT_EQ(usb.reset_device(handle), 0);
    usb.close(handle);
}

TEST_F(Usb, OpensByVendorAndProduct) {
    use();
    const UsbContext context;
    libusb_device_handle* handle =
        usb.open_device_with_vid_pid(context.get(), 0x7A01, printer_product);
    ASSERT_NE(handle, nullptr);
    usb.close(handle);
    EXPECT_EQ(usb.open_device_with_vid_pid(context.get(), 0x7A01, 0x9999), nullptr);
}

TEST_F(Usb, SharesTheDefaultContext) {
    use();
    ASSERT_EQ(usb.init(nullptr), 0);
    ASSERT_EQ(usb.init(nullptr), 0);
    usb.exit(nullptr);
    libusb_device** list = nullptr;
    EXPECT_EQ(usb.get_device_list(nullptr, &list), 2);
    usb.free_device_list(list, 1);
    usb.exit(nullptr);
    EXPECT_EQ(usb.get_device_list(nullptr, &list), LIBUSB_ERROR_INVALID_PARAM);
}

TEST_F(Usb, ReadsTheBusAnewAfterTheLastContext) {
    use();
    { EXPECT_EQ(UsbContext().count(), 2); }
    use(printer_bus("",
                    "[[device]]\nname = \"m\"\nvendor = 1\nproduct = 2\n[[device.interface]]\n"
                    "kind = \"mouse\"\n"));
    EXPECT_EQ(UsbContext().count(), 3);
}

TEST_F(Usb, LetsAHandleOutliveItsContext) {
    use(printer_bus("driver = false\n"));
    libusb_device_handle* handle = nullptr;
    {
        const UsbContext context;
        handle = context.open(printer_product);
    }
    EXPECT_EQ(send_command(handle, device_info), 5);
    usb.close(handle);
}

TEST_F(Usb, AllocatesButDoesNotSubmitTransfers) {
    libusb_transfer* transfer = usb.alloc_transfer(2);
    ASSERT_NE(transfer, nullptr);
    EXPECT_EQ(usb.submit_transfer(transfer), LIBUSB_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(usb.cancel_transfer(transfer), LIBUSB_ERROR_NOT_FOUND);
    usb.free_transfer(transfer);
    usb.free_transfer(nullptr);
    EXPECT_EQ(usb.alloc_transfer(-1), nullptr);
}

TEST_F(Usb, HandlesEventsAsWithNothingPending) {
    use();
    const UsbContext context;
    EXPECT_EQ(usb.event_handler_active(context.get()), 0);
    EXPECT_EQ(usb.try_lock_events(context.get()), 0);
    EXPECT_EQ(usb.try_lock_events(context.get()), 1);
    EXPECT_EQ(usb.event_handler_active(context.get()), 1);
    timeval wait{0, 20000};
    EXPECT_EQ(usb.wait_for_event(context.get(), &wait), 1);
    usb.unlock_events(context.get());
    EXPECT_EQ(usb.wait_for_event(context.get(), &wait), 0);
    EXPECT_EQ(usb.handle_events_timeout(context.get(), &wait), 0);
    EXPECT_EQ(usb.get_next_timeout(context.get(), &wait), 0);
}
