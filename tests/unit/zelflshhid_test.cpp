#include "usb/zelflshhid.h"

#include "support/failing_new.h"
#include "support/fake_usb.h"
#include "support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <utility>

namespace {

using testing::HasSubstr;

constexpr unsigned short output_usage = 0xA001;
constexpr unsigned short input_usage = 0xA002;
constexpr unsigned short feature_usage = 0xA003;

class HidDevice : public testing::Test {
  protected:
    HIDDEVICE2& opened(bool with_ids = false) {
        device = &usb.add(3, 17, 0x7A01, 0x3C02);
        make_flash_device(*device, with_ids, 16, 8);
        hid = std::make_unique<HIDDEVICE2>(0, 0, flash_path(*device).c_str());
        EXPECT_EQ(hid->OpenRc, 0);
        return *hid;
    }
    // A device open for reading and writing.
    HIDDEVICE2& ready(bool with_ids = false) {
        opened(with_ids);
        EXPECT_EQ(open("r"), 0);
        EXPECT_EQ(open("w"), 0);
        return *hid;
    }
    int open(const char* mode) {
        return hid->OpenDevice(reinterpret_cast<const unsigned char*>(mode));
    }
    int write(std::string bytes) {
        return hid->Write(flash_page, output_usage, bytes.data(),
                          static_cast<unsigned short>(bytes.size()));
    }
    int read(unsigned short length = 8) {
        buffer.assign(16, '\x11');
        return hid->Read(flash_page, input_usage, buffer.data(), length);
    }
    int set_feature(unsigned short length = 8) {
        buffer.assign(16, '\x22');
        return hid->SetFeature(flash_page, feature_usage, buffer.data(), length);
    }
    int get_feature() {
        buffer.assign(16, '\x33');
        return hid->GetFeature(flash_page, feature_usage, buffer.data(), 16);
    }
    // Takes the interface object away, as if it could never be created.
    void lose_interface() {
        hid->CloseReadHandle();
        hid->CloseWriteHandle();
        hid->intf.reset();
    }

    LogCapture log;
    FakeUsb usb;
    FakeUsbDevice* device = nullptr;
    std::unique_ptr<HIDDEVICE2> hid;
    std::string buffer;
};

const std::string reset_command("\x04\x00\x00\x40", 4);

}  // namespace

// --- construction and destruction ---

TEST_F(HidDevice, OpensTheDeviceOfItsPath) {
    opened();
    EXPECT_EQ(hid->OpenRc, 0);
    EXPECT_STREQ(hid->SerialNumber, "SN-0042");
    EXPECT_EQ(hid->VersionNumber, 0x0123);
    EXPECT_EQ(std::string(hid->DevicePath), flash_path(*device));
    EXPECT_EQ(hid->GetReadHandle(), closed_hid_handle());
    EXPECT_EQ(hid->GetWriteHandle(), closed_hid_handle());
    EXPECT_EQ(log.text(), "");
}

TEST_F(HidDevice, MarksAClosedHandleWithAllBits) {
    EXPECT_EQ(reinterpret_cast<std::intptr_t>(closed_hid_handle()), -1);
}

TEST_F(HidDevice, LogsItsLifeWithTheLabelsSwapped) {
    hid = std::make_unique<HIDDEVICE2>(0x7A01, 0x3C02, "//?/hid#x");
    EXPECT_EQ(log.text(),
              "3:HIDDEVICE2(PID=7a01, VID=3c02 DevicePath=//?/hid#x) created\n"
              "3:Create of '//?/hid#x' failed, rc=-2\n");
    hid.reset();
    EXPECT_THAT(log.text(), testing::EndsWith("3:~HIDDEVICE(VID=7a01, PID=3c02, Path=//?/hid#x) "
                                              "exiting\n"));
}

TEST_F(HidDevice, LogsItsLifeOnlyWhenBothIdsAreKnown) {
    for (const auto& [vendor, product] : {std::pair{0x7A01, 0}, std::pair{0, 0x3C02}}) {
        hid = std::make_unique<HIDDEVICE2>(static_cast<unsigned short>(vendor),
                                           static_cast<unsigned short>(product), "//?/hid#x");
        EXPECT_EQ(open("r"), 1);
        hid.reset();
    }
    EXPECT_EQ(log.text(),
              "3:Create of '//?/hid#x' failed, rc=-2\n3:Create of '//?/hid#x' failed, rc=-2\n");
}

TEST_F(HidDevice, IsMarkedWhenItsPathCannotBeOpened) {
    hid = std::make_unique<HIDDEVICE2>(0x7A01, 0x3C02, "//?/hid#x");
    EXPECT_EQ(hid->OpenRc, 1);
    EXPECT_EQ(open("r"), 1);
    EXPECT_EQ(log.count("3:OpenDevice(VID=7a01, PID=0x3c02) failed, rc=0x1\n"), 1);
    EXPECT_STREQ(hid->SerialNumber, "");
}

TEST_F(HidDevice, StaysUnderConstructionWithoutMemoryForItsInterface) {
    fail_nothrow_new(true);
    hid = std::make_unique<HIDDEVICE2>(0, 0, "//?/hid#x");
    fail_nothrow_new(false);
    EXPECT_EQ(hid->OpenRc, -1);
    EXPECT_EQ(open("r"), 1);
    hid->SetDeviceInfo("");
    EXPECT_EQ(log.text(), "3:SetDeviceInfo - exited  rc=0xffffffff\n");
}

TEST_F(HidDevice, CutsAPathThatIsTooLong) {
    const std::string path(600, 'p');
    hid = std::make_unique<HIDDEVICE2>(0, 0, path.c_str());
    EXPECT_EQ(std::string(hid->DevicePath), path.substr(0, 254));
}

TEST_F(HidDevice, GivesBackAllThatItOpened) {
    ready();
    hid.reset();
    EXPECT_EQ(usb.live_handles, 0);
    EXPECT_EQ(usb.live_configurations, 0);
    EXPECT_EQ(usb.live_contexts, 0);
    EXPECT_THAT(usb.calls(), testing::Contains("release 0").Times(1));
}

// --- handles ---

TEST_F(HidDevice, OpensReadAndWriteHandle) {
    opened();
    EXPECT_EQ(open("r"), 0);
    EXPECT_NE(hid->GetReadHandle(), closed_hid_handle());
    EXPECT_EQ(hid->GetWriteHandle(), closed_hid_handle());
    EXPECT_EQ(open("w"), 0);
    EXPECT_EQ(hid->GetWriteHandle(), hid->GetReadHandle());
}

TEST_F(HidDevice, OpensNothingForAnotherMode) {
    opened();
    EXPECT_EQ(open("x"), 0);
    EXPECT_EQ(hid->GetReadHandle(), closed_hid_handle());
    EXPECT_EQ(hid->GetWriteHandle(), closed_hid_handle());
}

TEST_F(HidDevice, TakesANullHandleForSuccess) {
    opened();
    device->claim_rcs = {LIBUSB_ERROR_NO_DEVICE};
    EXPECT_EQ(open("r"), 0);
    EXPECT_EQ(hid->ReadHandle, nullptr);
    EXPECT_EQ(hid->GetReadHandle(), closed_hid_handle());
    hid->CloseReadHandle();
    EXPECT_EQ(hid->ReadHandle, nullptr);
}

TEST_F(HidDevice, RefusesAnInterfaceOfAnotherUsageAndClosesWhatWasOpen) {
    ready();
    hid->intf->Usage = 6;
    EXPECT_EQ(open("r"), 1);
    EXPECT_EQ(hid->ReadHandle, closed_hid_handle());
    EXPECT_EQ(hid->WriteHandle, closed_hid_handle());
    EXPECT_THAT(usb.calls(), testing::Contains("release 0").Times(1));
}

TEST_F(HidDevice, ClosesEachHandleOnce) {
    ready();
    hid->CloseWriteHandle();
    EXPECT_EQ(hid->WriteHandle, closed_hid_handle());
    EXPECT_EQ(hid->intf->intfnum, 0);
    hid->CloseReadHandle();
    hid->CloseReadHandle();
    EXPECT_EQ(hid->intf->intfnum, 0xBAD);
    EXPECT_THAT(usb.calls(), testing::Contains("release 0").Times(1));
}

// --- write ---

TEST_F(HidDevice, WritesAnOutputReport) {
    ready();
    usb.controls.clear();
    EXPECT_EQ(write("abc"), 0);
    ASSERT_EQ(usb.controls.size(), 1U);
    EXPECT_EQ(usb.controls[0].data, (Bytes{'a', 'b', 'c'}));
    EXPECT_EQ(usb.controls[0].timeout, 5000U);
    EXPECT_EQ(log.count("3:Write: entered upage=0xff45 u=0xa001, length=3\n"), 1);
}

struct WriteFailure {
    int rc;
    const char* message;
    int result;
};

class HidWriteFailure : public HidDevice, public testing::WithParamInterface<WriteFailure> {};

TEST_P(HidWriteFailure, IsLoggedAlwaysAndMapped) {
    ready();
    device->control_rcs = {GetParam().rc};
    EXPECT_EQ(write("abc"), GetParam().result);
    EXPECT_THAT(log.text(), testing::EndsWith(std::string("\n") + GetParam().message));
}

TEST_P(HidWriteFailure, IsExpectedOfAReset) {
    ready();
    device->control_rcs = {GetParam().rc};
    EXPECT_EQ(write(reset_command), 0);
    EXPECT_THAT(log.text(), testing::EndsWith(std::string(GetParam().message) +
                                              "Reset sent, write failure expected!\n"));
}

INSTANTIATE_TEST_SUITE_P(
    Results, HidWriteFailure,
    testing::Values(WriteFailure{-4, "Write device not connected, rc=-4 (usage=a001)\n", 13},
                    WriteFailure{-7, "Write timed out, rc=-7 (usage=a001)\n", 8},
                    WriteFailure{-9, "Write pipe error, rc=-9 (usage=a001)\n", 8},
                    WriteFailure{-1, "Write failed, rc=-1 (usage=a001)\n", 8},
                    WriteFailure{0, "Write failed, rc=0 (usage=a001)\n", 8}));

TEST_F(HidDevice, LogsNoFailureOfAResetThatArrived) {
    ready();
    EXPECT_EQ(write(reset_command), 0);
    EXPECT_EQ(log.count("Reset sent"), 0);
}

TEST_F(HidDevice, ExpectsNoFailureOfACommandThatOnlyBeginsLikeAReset) {
    ready();
    device->control_rcs = {-4, -4};
    EXPECT_EQ(write(reset_command + "x"), 13);
    EXPECT_EQ(write(std::string("\x04\x00\x00\x41", 4)), 13);
    EXPECT_EQ(log.count("Reset sent"), 0);
}

TEST_F(HidDevice, WritesNothingWithoutAnInterface) {
    ready();
    lose_interface();
    EXPECT_EQ(write("abc"), 13);
    EXPECT_THAT(
        log.text(),
        testing::EndsWith("\nWrite device not connected, rc=0 (usagePage=ff45, usage=a001)\n"));
    EXPECT_EQ(write(reset_command), 0);
    EXPECT_THAT(log.text(), testing::EndsWith("\nReset sent, write failure expected!\n"));
}

// --- read ---

TEST_F(HidDevice, ReadsAnInputReport) {
    ready();
    device->packets = {{0, {'1', '2', '3', '4', '5', '6', '7', '8'}, -1}};
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(buffer.substr(0, 9), "12345678\x11");
    EXPECT_EQ(usb.interrupts[0].timeout, 86400000U);
    EXPECT_EQ(log.count("3:Read: entered upage=0xff45 u=0xa002, length=8\n"), 1);
}

TEST_F(HidDevice, OpensItsReadHandleForTheFirstRead) {
    opened();
    device->packets = {{0, {'1'}, -1}};
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(buffer[0], '1');
    EXPECT_NE(hid->ReadHandle, closed_hid_handle());
    hid->CloseReadHandle();
    device->packets = {{0, {'2'}, -1}};
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(buffer[0], '2');
}

TEST_F(HidDevice, CopiesOnlyWhatWasAskedFor) {
    ready();
    device->packets = {{0, {'1', '2', '3', '4'}, -1}};
    EXPECT_EQ(read(2), 0);
    EXPECT_EQ(buffer.substr(0, 3), "12\x11");
}

TEST_F(HidDevice, ClearsWhatAShortReportDoesNotFill) {
    ready();
    device->packets = {{0, {'1', '2'}, -1}};
    EXPECT_EQ(read(4), 0);
    EXPECT_EQ(buffer.substr(0, 5), std::string("12\0\0\x11", 5));
}

TEST_F(HidDevice, LeavesTheBufferAloneWhenItCannotOpenItsReadHandle) {
    opened();
    device->claim_rcs = {LIBUSB_ERROR_NO_DEVICE};
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(buffer, std::string(16, '\x11'));
    EXPECT_TRUE(usb.interrupts.empty());
}

TEST_F(HidDevice, ReadsOnAfterTimeoutsAndEmptyPackets) {
    ready();
    device->packets = {
        {LIBUSB_ERROR_TIMEOUT, {}, -1}, {0, {}, -1}, {LIBUSB_ERROR_OTHER, {}, -1}, {0, {'7'}, -1}};
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(buffer[0], '7');
    EXPECT_EQ(usb.interrupts.size(), 4U);
}

// The bytes of such a packet are not handed over.
TEST_F(HidDevice, EndsAReadByATimeoutThatCarriesBytes) {
    ready();
    device->packets = {{LIBUSB_ERROR_TIMEOUT, {'1', '2'}, -1}, {0, {'7'}, -1}};
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(buffer.substr(0, 9), std::string(8, '\0') + '\x11');
    EXPECT_EQ(usb.interrupts.size(), 1U);
}

struct ReadFailure {
    FakePacket packet;
    const char* message;
    int result;
};

class HidReadFailure : public HidDevice, public testing::WithParamInterface<ReadFailure> {};

TEST_P(HidReadFailure, IsLoggedAlwaysAndMapped) {
    ready();
    device->packets = {GetParam().packet};
    EXPECT_EQ(read(), GetParam().result);
    EXPECT_THAT(log.text(), testing::EndsWith(std::string("\n") + GetParam().message));
    EXPECT_EQ(buffer.substr(0, 8), std::string(8, '\0'));
}

INSTANTIATE_TEST_SUITE_P(
    Results, HidReadFailure,
    testing::Values(ReadFailure{{-9, {}, -1}, "Read end point halted, rc=-9\n", 13},
                    ReadFailure{{-8, {1}, -1}, "Read device overflow, rc=-8\n", 7},
                    ReadFailure{{-4, {}, -1}, "Read device not connected, rc=-4\n", 13},
                    ReadFailure{{-1, {}, -1}, "Read I/O Error, rc=-1\n", 7},
                    ReadFailure{{-3, {}, -1}, "Read failed, rc=-3\n", 7},
                    ReadFailure{{-99, {1}, -1}, "Read failed, rc=-99\n", 7}));

TEST_F(HidDevice, ReadsNothingWithoutAnInterface) {
    ready();
    libusb_device_handle* const handle = hid->ReadHandle;
    lose_interface();
    EXPECT_EQ(read(), 0);
    hid->ReadHandle = handle;
    EXPECT_EQ(read(), 13);
    EXPECT_THAT(log.text(), testing::EndsWith("\nRead no HID device, rc=0\n"));
    hid->CloseReadHandle();
}

// A reader that waits in Read is set free by the main thread's closing of the handles.
TEST_F(HidDevice, EndsAReadWhoseHandleAnotherThreadHasClosed) {
    ready();
    std::atomic<int> reads = 0;
    device->before_interrupt = [&] { ++reads; };
    int rc = -1;
    std::thread reader([&] { rc = read(); });
    while (reads < 3) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    hid->CloseWriteHandle();
    hid->CloseReadHandle();
    reader.join();
    EXPECT_EQ(rc, 13);
    EXPECT_THAT(log.text(), testing::EndsWith("Read device not connected, rc=-4\n"));
}

TEST_F(HidDevice, WritesAndFetchesWhileAReaderReads) {
    ready();
    device->feature = Bytes(8, 5);
    p_libusb_interrupt_transfer = [](libusb_device_handle*, unsigned char, unsigned char* data, int,
                                     int* actual, unsigned int) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        data[0] = 0x80;
        *actual = 8;
        return 0;
    };
    std::atomic<bool> stop = false;
    std::atomic<int> reports = 0;
    std::thread reader([&] {
        std::string status(8, '\0');
        while (!stop) {
            if (hid->Read(flash_page, input_usage, status.data(), 8) == 0) {
                ++reports;
            }
        }
    });
    while (reports < 20) {
        EXPECT_EQ(write("abc"), 0);
        std::string feature(8, '\0');
        EXPECT_EQ(hid->GetFeature(flash_page, feature_usage, feature.data(), 8), 0);
    }
    stop = true;
    hid->CloseWriteHandle();
    reader.join();
    hid->CloseReadHandle();
    EXPECT_EQ(hid->intf->intfnum, 0xBAD);
}

// --- features ---

TEST_F(HidDevice, SetsAFeatureReport) {
    ready();
    usb.controls.clear();
    EXPECT_EQ(set_feature(), 0);
    EXPECT_EQ(usb.controls[0].data, Bytes(8, 0x22));
    EXPECT_EQ(usb.controls[0].timeout, 5000U);
    EXPECT_THAT(log.text(), testing::EndsWith("3:SetFeature - entered upage=0xff45 u=0xa003\n"
                                              "3:SetFeature - exited  rc=0x0\n"));
}

TEST_F(HidDevice, FailsToSetAFeatureThatIsLongerThanItsReport) {
    ready();
    EXPECT_EQ(set_feature(9), 11);
}

struct FeatureFailure {
    int rc;
    const char* set_message;
    int set_result;
    const char* get_message;
    int get_result;
};

/// For the test's name.
void PrintTo(const FeatureFailure& failure, std::ostream* stream) {
    *stream << "rc" << failure.rc;
}

class HidFeatureFailure : public HidDevice, public testing::WithParamInterface<FeatureFailure> {};

TEST_P(HidFeatureFailure, OfSettingIsLoggedAndMapped) {
    ready();
    device->control_rcs = {GetParam().rc};
    const int rc = set_feature();
    EXPECT_EQ(rc, GetParam().set_result);
    EXPECT_THAT(log.text(), HasSubstr(std::string("\n3:") + GetParam().set_message));
    EXPECT_THAT(log.text(), testing::EndsWith(rc == 13 ? "3:SetFeature - exited  rc=0xd\n"
                                                       : "3:SetFeature - exited  rc=0xb\n"));
}

TEST_P(HidFeatureFailure, OfGettingIsLoggedAndMapped) {
    ready();
    device->control_rcs = {GetParam().rc};
    const int rc = get_feature();
    EXPECT_EQ(rc, GetParam().get_result);
    EXPECT_THAT(log.text(), HasSubstr(std::string("\n3:") + GetParam().get_message));
    EXPECT_THAT(log.text(), testing::EndsWith(rc == 13 ? "3:<GetFeature - exited  rc=0xd\n"
                                                       : "3:<GetFeature - exited  rc=0xc\n"));
}

INSTANTIATE_TEST_SUITE_P(
    Results, HidFeatureFailure,
    testing::Values(
        FeatureFailure{-4, "Set feature device not connected, rc=-4 (usagePage=ff45 usage=a003)\n",
                       13, "Get feature device not connected (usagePage=ff45, usage=a003)\n", 13},
        FeatureFailure{-7, "Set feature timed out, rc=-7 (usagePage=ff45 usage=a003)\n", 11,
                       "Get feature timeout (usagePage=ff45, usage=a003)\n", 12},
        FeatureFailure{-9, "Set feature pipe error, rc=-9 (usagePage=ff45 usage=a003)\n", 11,
                       "Get feature pipe error (usagePage=ff45, usage=a003)\n", 12},
        FeatureFailure{-1, "Set feature write failed, rc=-1 (usagePage=ff45 usage=a003)\n", 11,
                       "Get feature write failed rc=-1, (usagePage=ff45, usage=a003)\n", 12},
        FeatureFailure{0, "Set feature write failed, rc=0 (usagePage=ff45 usage=a003)\n", 11,
                       "Get feature write failed rc=0, (usagePage=ff45, usage=a003)\n", 12}));

TEST_F(HidDevice, GetsAFeatureReport) {
    ready(true);
    device->feature = {3, 'a', 'b', 'c', 'd', 'e', 'f', 'g'};
    EXPECT_EQ(get_feature(), 0);
    EXPECT_EQ(buffer.substr(0, 8), "abcdefg\x33");
    EXPECT_THAT(log.text(), testing::EndsWith("3:GetFeature - entered upage=0xff45 u=0xa003\n"
                                              "3:<GetFeature - exited  rc=0x0\n"));
}

TEST_F(HidDevice, HasNoFeaturesWithoutAnInterface) {
    ready();
    lose_interface();
    EXPECT_EQ(set_feature(), 13);
    EXPECT_THAT(log.text(), testing::EndsWith("3:SetFeature - entered upage=0xff45 u=0xa003\n"
                                              "3:Set feature invalid handle, rc=0 (usagePage=ff45 "
                                              "usage=a003)\n"
                                              "3:SetFeature - exited  rc=0xd\n"));
    EXPECT_EQ(get_feature(), 13);
    EXPECT_THAT(log.text(), testing::EndsWith("3:GetFeature - entered upage=0xff45 u=0xa003\n"
                                              "3:Get feature invalid handle (usagePage=ff45, "
                                              "usage=a003)\n"
                                              "3:<GetFeature - exited  rc=0xd\n"));
}

TEST_F(HidDevice, KeepsDetailsOutOfANormalLog) {
    const LogCapture quiet(1);
    ready();
    device->control_rcs = {LIBUSB_ERROR_PIPE, LIBUSB_ERROR_PIPE};
    EXPECT_EQ(write("abc"), 8);
    EXPECT_EQ(get_feature(), 12);
    EXPECT_EQ(quiet.text(), "Write pipe error, rc=-9 (usage=a001)\n");
}
