#include "support/failing_new.h"
#include "support/fake_usb.h"
#include "support/log_capture.h"
#include "support/sleep_double.h"
#include "usb/flshusbintf.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>

namespace {

using testing::Each;
using testing::ElementsAre;

constexpr unsigned short flash_output = 0xA001;
constexpr unsigned short command_usage = 0x0001;

class Transfers : public testing::Test {
  protected:
    // A flash device with that layout, open, claimed, and with an OUT endpoint too.
    USBINTF& claimed(bool with_ids = false, int output_size = 16, int feature_size = 8) {
        device = &usb.add(3, 17, 0x7A01, 0x3C02);
        make_flash_device(*device, with_ids, output_size, feature_size);
        device->configurations[0].interfaces[0][0].endpoints.push_back(
            interrupt_endpoint(0x02, 32));
        EXPECT_EQ(intf.OpenDevice(flash_path(*device).data()), 0);
        EXPECT_EQ(intf.ClaimInterface(0), 0);
        usb.controls.clear();
        return intf;
    }
    // An output report with another usage than the flash interface's: it waits for an answer.
    void add_command_report() {
        intf.OutputReports[1] = std::make_unique<Report>(Report{0, flash_page, command_usage, 16});
        intf.OutputReportCount = 2;
    }
    int send(unsigned short usage, unsigned short length) {
        Bytes data(length, 0x5A);
        return intf.HidSetOutputReport(flash_page, usage, data.data(), length, 5000);
    }
    int read(int length = 64) {
        received.assign(static_cast<size_t>(length), 0xEE);
        return intf.HidInterruptRead(received.data(), length, &actual, &report_id, 250);
    }

    LogCapture log;
    FakeUsb usb;
    USBINTF intf;
    FakeUsbDevice* device = nullptr;
    Bytes received;
    int actual = 99;
    unsigned char report_id = 99;
};

}  // namespace

// --- without a claimed interface, endpoint or handle ---

TEST_F(Transfers, AreNotPossibleWithoutAClaimedInterface) {
    Bytes data(8);
    EXPECT_EQ(intf.HidSetOutputReport(flash_page, flash_output, data.data(), 8, 10),
              LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf.HidSetOutputReport(1, data.data(), 8, 10), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf.HidGetInputReport(1, data.data(), 8, 10), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf.HidGetInputReport(flash_page, 0xA002, data.data(), 8, 10),
              LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf.HidGetFeatureReport(1, data.data(), 8, 10), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf.HidGetFeatureReport(flash_page, 0xA003, data.data(), 8, 10),
              LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf.HidSetFeatureReport(1, data.data(), 8, 10), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf.HidSetFeatureReport(flash_page, 0xA003, data.data(), 8, 10),
              LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf.WriteFlashInterface(data.data(), 8, 10), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(read(), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(usb.null_handles, 0);
    claimed();
    intf.ReleaseInterface(0);
    EXPECT_EQ(intf.HidSetOutputReport(flash_page, flash_output, data.data(), 8, 10),
              LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf.HidGetFeatureReport(flash_page, 0xA003, data.data(), 8, 10),
              LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf.HidSetFeatureReport(flash_page, 0xA003, data.data(), 8, 10),
              LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf.HidInterruptWrite(data.data(), 8, &actual, 10), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_TRUE(usb.controls.empty());
    EXPECT_TRUE(usb.interrupts.empty());
}

TEST_F(Transfers, AreNotPossibleWithoutAnEndpoint) {
    claimed();
    intf.InterruptEndpointIn = 0;
    intf.InterruptEndpointOut = 0;
    EXPECT_EQ(read(), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(actual, 0);
    EXPECT_EQ(report_id, 0);
    EXPECT_EQ(intf.HidInterruptWrite(received.data(), 8, &actual, 10), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_TRUE(usb.interrupts.empty());
}

TEST_F(Transfers, AreNotPossibleWithoutAHandle) {
    claimed();
    libusb_device_handle* const handle = std::exchange(intf.handle, nullptr);
    EXPECT_EQ(send(flash_output, 8), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(read(), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf.HidGetFeatureReport(flash_page, 0xA003, received.data(), 8, 10),
              LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(intf.WriteFlashInterface(received.data(), 8, 10), LIBUSB_ERROR_INVALID_PARAM);
    intf.handle = handle;
    EXPECT_EQ(usb.null_handles, 0);
}

// --- output reports ---

TEST_F(Transfers, SendAnOutputReportWithoutIds) {
    claimed();
    EXPECT_EQ(send(flash_output, 5), 5);
    ASSERT_EQ(usb.controls.size(), 1U);
    const FakeControl& control = usb.controls[0];
    EXPECT_EQ(control.type, 0x21);
    EXPECT_EQ(control.request, 9);
    EXPECT_EQ(control.value, 0x0200);
    EXPECT_EQ(control.index, 0);
    EXPECT_EQ(control.timeout, 5000U);
    EXPECT_EQ(control.data, Bytes(5, 0x5A));
}

TEST_F(Transfers, ClaimAgainBeforeAnOutputReportAndIgnoreTheResult) {
    claimed();
    device->claim_rcs = {LIBUSB_ERROR_BUSY};
    EXPECT_EQ(send(flash_output, 5), 5);
    EXPECT_EQ(usb.calls().back(), "claim 0");
}

TEST_F(Transfers, PutTheReportIdInFront) {
    claimed(true);
    EXPECT_EQ(send(flash_output, 3), 3);
    EXPECT_EQ(usb.controls[0].value, 0x0201);
    EXPECT_EQ(usb.controls[0].data, (Bytes{1, 0x5A, 0x5A, 0x5A}));
}

TEST_F(Transfers, SendTheIdBesideAFullReport) {
    claimed(true);
    EXPECT_EQ(send(flash_output, 16), 16);
    EXPECT_EQ(usb.controls[0].data.size(), 17U);
}

TEST_F(Transfers, CutWhatIsLongerThanTheReport) {
    claimed(true);
    EXPECT_EQ(send(flash_output, 40), 16);
    EXPECT_EQ(usb.controls[0].data.size(), 17U);
    intf.ReportIdUsed = 0;
    EXPECT_EQ(send(flash_output, 40), 16);
    EXPECT_EQ(usb.controls[1].data.size(), 16U);
}

TEST_F(Transfers, NeverSendMoreThanATransferCarries) {
    claimed(true);
    intf.OutputReports[0]->Size = 0xFFFF;
    EXPECT_EQ(send(flash_output, 0xFFFF), 0xFFFE);
    EXPECT_EQ(usb.controls[0].data.size(), 0xFFFFU);
}

TEST_F(Transfers, SendNothingOfAReportThatTheDeviceDoesNotHave) {
    claimed();
    device->before_class_request = [&](const FakeControl&) { intf.interrupt_response = 1; };
    EXPECT_EQ(send(0x0777, 8), 0);
    EXPECT_EQ(usb.controls[0].value, 0x0200);
    EXPECT_EQ(usb.controls[0].length, 0);
}

TEST_F(Transfers, SendOnlyAnIdOfZeroOfAReportThatADeviceWithIdsDoesNotHave) {
    claimed(true);
    device->before_class_request = [&](const FakeControl&) { intf.interrupt_response = 1; };
    EXPECT_EQ(send(0x0777, 8), 0);
    EXPECT_EQ(usb.controls[0].data, Bytes{0});
}

TEST_F(Transfers, LogAndReturnAFailedOutputReport) {
    claimed();
    device->control_rcs = {LIBUSB_ERROR_PIPE, 4, 0};
    EXPECT_EQ(send(flash_output, 8), LIBUSB_ERROR_PIPE);
    EXPECT_EQ(send(flash_output, 8), 4);
    EXPECT_EQ(send(flash_output, 8), 0);
    EXPECT_EQ(log.count("3:7a01:3c02-11:ff45:a001 - HidSetOutputReport: error response, rc=-9\n"),
              1);
    EXPECT_EQ(log.count("HidSetOutputReport: error response, rc=4\n"), 1);
}

TEST_F(Transfers, SendTheCallersBytesWhenThereIsNoMemory) {
    claimed(true);
    intf.interrupt_response = 1;
    fail_nothrow_new(true);
    EXPECT_EQ(send(flash_output, 3), 3);
    EXPECT_EQ(usb.controls[0].data, Bytes(3, 0x5A));
    EXPECT_EQ(usb.controls[0].value, 0x0201);
    EXPECT_EQ(intf.interrupt_response, 1);
}

TEST_F(Transfers, ClearTheAnswerFlagBeforeSending) {
    claimed();
    intf.interrupt_response = 1;
    int seen = -1;
    device->before_class_request = [&](const FakeControl&) { seen = intf.interrupt_response; };
    send(flash_output, 3);
    EXPECT_EQ(seen, 0);
}

namespace {

// --- the first command of the run ---

class FirstCommand : public Transfers {
  protected:
    // The first command, answered before the poll of that number; never when that is 0.
    int first_command(int answered_poll) {
        claimed();
        add_command_report();
        sleeps.after_sleep = [this, answered_poll](int poll) {
            if (poll == answered_poll) {
                device->packets = {{0, Bytes(8, 1), -1}};
                read();
            }
        };
        return send(command_usage, 6);
    }
    SleepDouble sleeps{10};
};

}  // namespace

TEST_F(FirstCommand, IsSentOnceWhenTheDeviceAnswersAtOnce) {
    EXPECT_EQ(first_command(1), 6);
    EXPECT_EQ(usb.controls.size(), 1U);
    EXPECT_THAT(sleeps.slept(), ElementsAre(10));
    EXPECT_EQ(log.count("Resending"), 0);
}

TEST_F(FirstCommand, IsSentOnceWhenTheDeviceAnswersWithinNinePolls) {
    EXPECT_EQ(first_command(9), 6);
    EXPECT_EQ(usb.controls.size(), 1U);
    EXPECT_EQ(sleeps.slept().size(), 9U);
}

TEST_F(FirstCommand, IsSentTwiceWhenTheDeviceAnswersLater) {
    EXPECT_EQ(first_command(10), 6);
    ASSERT_EQ(usb.controls.size(), 2U);
    EXPECT_EQ(usb.controls[0].data, usb.controls[1].data);
    EXPECT_EQ(usb.controls[1].value, 0x0200);
    EXPECT_EQ(sleeps.slept().size(), 10U);
    EXPECT_EQ(log.count("3:7a01:3c02-11:ff45:0001 - Resending 6 bytes\n"), 1);
}

TEST_F(FirstCommand, IsSentTwiceAfterASecondWithoutAnswer) {
    EXPECT_EQ(first_command(0), 6);
    EXPECT_EQ(usb.controls.size(), 2U);
    EXPECT_EQ(sleeps.count(10), 100);
    EXPECT_EQ(log.count("3:7a01:3c02-11:ff45:0001 - Resending 6 bytes\n"), 1);
}

TEST_F(FirstCommand, IsSentAgainWithItsReportId) {
    claimed(true);
    intf.OutputReports[1] = std::make_unique<Report>(Report{4, flash_page, command_usage, 16});
    intf.OutputReportCount = 2;
    EXPECT_EQ(send(command_usage, 2), 2);
    ASSERT_EQ(usb.controls.size(), 2U);
    EXPECT_EQ(usb.controls[1].value, 0x0204);
    EXPECT_EQ(usb.controls[1].data, (Bytes{4, 0x5A, 0x5A}));
    EXPECT_EQ(usb.controls[1].timeout, 5000U);
    EXPECT_EQ(log.count("- Resending 3 bytes\n"), 1);
}

TEST_F(FirstCommand, DoesNotWaitWhenItsSendingFailed) {
    claimed();
    add_command_report();
    device->control_rcs = {LIBUSB_ERROR_PIPE};
    EXPECT_EQ(send(command_usage, 6), LIBUSB_ERROR_PIPE);
    EXPECT_THAT(sleeps.slept(), ElementsAre());
}

TEST_F(FirstCommand, ReturnsAFailedSecondSending) {
    claimed();
    add_command_report();
    device->control_rcs = {6, LIBUSB_ERROR_PIPE};
    EXPECT_EQ(send(command_usage, 6), LIBUSB_ERROR_PIPE);
}

TEST_F(FirstCommand, DoesNotWaitAgainOnceAnAnswerWasSeen) {
    first_command(100);
    const size_t slept = sleeps.slept().size();
    USBINTF second;
    ASSERT_EQ(second.OpenDevice(flash_path(*device).data()), 0);
    ASSERT_EQ(second.ClaimInterface(0), 0);
    usb.controls.clear();
    Bytes data(4);
    EXPECT_EQ(second.HidSetOutputReport(flash_page, command_usage, data.data(), 4, 5000), 0);
    EXPECT_EQ(send(command_usage, 6), 6);
    EXPECT_EQ(usb.controls.size(), 2U);
    EXPECT_EQ(sleeps.slept().size(), slept);
}

TEST_F(FirstCommand, WaitsAgainWhenNoAnswerWasSeenYet) {
    first_command(0);
    usb.controls.clear();
    EXPECT_EQ(send(command_usage, 6), 6);
    EXPECT_EQ(usb.controls.size(), 2U);
}

TEST_F(FirstCommand, NeverWaitsWithTheFlashOutputUsage) {
    claimed();
    EXPECT_EQ(send(flash_output, 6), 6);
    EXPECT_EQ(usb.controls.size(), 1U);
}

// --- output reports by ID ---

TEST_F(Transfers, SendTheWholeReportByIdFilledWithZeros) {
    claimed(true, 6);
    Bytes data{1, 2, 3};
    EXPECT_EQ(intf.HidSetOutputReport(1, data.data(), 3, 700), 3);
    EXPECT_EQ(usb.controls[0].value, 0x0201);
    EXPECT_EQ(usb.controls[0].timeout, 700U);
    EXPECT_EQ(usb.controls[0].data, (Bytes{1, 2, 3, 0, 0, 0}));
}

TEST_F(Transfers, SendNothingByAnUnknownId) {
    claimed(true, 6);
    Bytes data{1, 2, 3};
    EXPECT_EQ(intf.HidSetOutputReport(9, data.data(), 3, 700), 0);
    EXPECT_EQ(usb.controls[0].length, 0);
}

TEST_F(Transfers, ReturnAFailureByIdAndSendTheCallersBytesWithoutMemory) {
    claimed(true, 6);
    Bytes data{1, 2, 3};
    device->control_rcs = {LIBUSB_ERROR_IO};
    EXPECT_EQ(intf.HidSetOutputReport(1, data.data(), 3, 700), LIBUSB_ERROR_IO);
    fail_nothrow_new(true);
    EXPECT_EQ(intf.HidSetOutputReport(1, data.data(), 3, 700), 3);
    EXPECT_EQ(usb.controls[1].data, data);
}

// --- the direct flash write ---

TEST_F(Transfers, WriteTheFlashInterfaceClaimedForOneReport) {
    claimed(true);
    const size_t before = usb.calls().size();
    Bytes data(4, 7);
    EXPECT_EQ(intf.WriteFlashInterface(data.data(), 4, 900), 0);
    EXPECT_EQ(intf.ReportIdUsed, 0);
    const FakeControl& control = usb.controls.back();
    EXPECT_EQ(control.value, 0x0201);
    EXPECT_EQ(control.data, data);
    EXPECT_EQ(control.timeout, 900U);
    auto calls = usb.calls();
    calls.erase(calls.begin(), calls.begin() + static_cast<int>(before));
    EXPECT_THAT(calls, ElementsAre("claim 0", "release 0"));
}

TEST_F(Transfers, WriteTheFlashInterfaceUpToTheReportsSize) {
    claimed(false, 16);
    Bytes data(400, 7);
    EXPECT_EQ(intf.WriteFlashInterface(data.data(), 400, 900), 0);
    EXPECT_EQ(usb.controls.back().length, 16);
    intf.OutputReports[0]->Size = 0;
    EXPECT_EQ(intf.WriteFlashInterface(data.data(), 400, 900), 0);
    EXPECT_EQ(usb.controls.back().length, 263);
    intf.OutputReportCount = 0;
    EXPECT_EQ(intf.WriteFlashInterface(data.data(), 400, 900), 0);
    EXPECT_EQ(usb.controls.back().length, 263);
    EXPECT_EQ(usb.controls.back().value, 0x0200);
}

TEST_F(Transfers, WriteTheFlashInterfaceWithTheIdOfAReportWithoutSize) {
    claimed(true);
    intf.OutputReports[0]->Size = 0;
    Bytes data(400, 7);
    EXPECT_EQ(intf.WriteFlashInterface(data.data(), 400, 900), 0);
    EXPECT_EQ(usb.controls.back().type, 0x21);
    EXPECT_EQ(usb.controls.back().request, 9);
    EXPECT_EQ(usb.controls.back().value, 0x0201);
    EXPECT_EQ(usb.controls.back().data, Bytes(263, 7));
}

// By the interface's position in the configuration, whatever its number is.
TEST_F(Transfers, WriteTheFlashInterfaceAtItsPosition) {
    claimed();
    auto& interfaces = device->configurations[0].interfaces;
    interfaces.insert(interfaces.begin(), {FakeSetting{}});
    ASSERT_EQ(intf.GetUsbConfig(), 0);
    Bytes data(4, 7);
    EXPECT_EQ(intf.WriteFlashInterface(data.data(), 4, 900), 0);
    EXPECT_EQ(usb.controls.back().index, 1);
    EXPECT_EQ(usb.calls().back(), "release 1");
}

TEST_F(Transfers, WriteTheFlashInterfaceAfterDetachingItsDriver) {
    claimed();
    Bytes data(4, 7);
    device->claim_rcs = {LIBUSB_ERROR_BUSY, 0};
    EXPECT_EQ(intf.WriteFlashInterface(data.data(), 4, 900), 0);
    device->claim_rcs = {LIBUSB_ERROR_BUSY, LIBUSB_ERROR_BUSY};
    EXPECT_EQ(intf.WriteFlashInterface(data.data(), 4, 900), LIBUSB_ERROR_INVALID_PARAM);
    device->claim_rcs = {LIBUSB_ERROR_BUSY};
    device->detach_rc = -5;
    EXPECT_EQ(intf.WriteFlashInterface(data.data(), 4, 900), LIBUSB_ERROR_INVALID_PARAM);
    device->claim_rcs = {LIBUSB_ERROR_NO_DEVICE};
    EXPECT_EQ(intf.WriteFlashInterface(data.data(), 4, 900), LIBUSB_ERROR_INVALID_PARAM);
}

TEST_F(Transfers, WriteNoFlashInterfaceThatIsNotThere) {
    claimed();
    device->strings[4] = string_descriptor("Keyboard");
    Bytes data(4, 7);
    EXPECT_EQ(intf.WriteFlashInterface(data.data(), 4, 900), LIBUSB_ERROR_INVALID_PARAM);
}

TEST_F(Transfers, LogAFailedFlashWriteAndReleaseTheInterface) {
    claimed();
    Bytes data(4, 7);
    device->control_rcs = {LIBUSB_ERROR_TIMEOUT};
    EXPECT_EQ(intf.WriteFlashInterface(data.data(), 4, 900), LIBUSB_ERROR_TIMEOUT);
    EXPECT_EQ(log.count("3:7a01:3c02-11:ff45:a001 - WriteFlashInterface: error response, rc=-7\n"),
              1);
    EXPECT_EQ(usb.calls().back(), "release 0");
}

TEST_F(Transfers, WriteTheCallersBytesWithoutMemoryAndKeepTheRawResult) {
    claimed(true);
    Bytes data(4, 7);
    fail_nothrow_new(true);
    EXPECT_EQ(intf.WriteFlashInterface(data.data(), 4, 900), 4);
    EXPECT_EQ(intf.ReportIdUsed, 1);
    EXPECT_EQ(usb.calls().back(), "release 0");
}

// --- interrupt transfers ---

TEST_F(Transfers, ReadOnePacket) {
    claimed();
    device->packets = {{0, {1, 2, 3, 4, 5, 6, 7, 8}, -1}};
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(actual, 8);
    EXPECT_EQ(report_id, 0);
    EXPECT_EQ(Bytes(received.begin(), received.begin() + 8), (Bytes{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(received[8], 0xEE);
    EXPECT_EQ(intf.interrupt_response, 1);
    ASSERT_EQ(usb.interrupts.size(), 1U);
    EXPECT_EQ(usb.interrupts[0].endpoint, 0x81);
    EXPECT_EQ(usb.interrupts[0].length, 64);
    EXPECT_EQ(usb.interrupts[0].timeout, 250U);
}

TEST_F(Transfers, TakeTheIdOffAPacket) {
    claimed(true);
    device->packets = {{0, {2, 0x11, 0x22}, -1}};
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(report_id, 2);
    EXPECT_EQ(actual, 2);
    EXPECT_EQ(received[0], 0x11);
    EXPECT_EQ(received[1], 0x22);
    EXPECT_EQ(received[2], 0xEE);
}

TEST_F(Transfers, CutAPacketToTheCallersBufferButKeepItsLength) {
    claimed();
    device->packets = {{0, {1, 2, 3, 4, 5}, -1}};
    EXPECT_EQ(read(2), 0);
    EXPECT_EQ(actual, 5);
    EXPECT_EQ(received, (Bytes{1, 2}));
}

TEST_F(Transfers, ClampAByteCountBeyondThePacketSize) {
    claimed();
    device->packets = {{0, Bytes(64, 9), 5000}};
    EXPECT_EQ(read(100), 0);
    EXPECT_EQ(actual, 64);
    EXPECT_EQ(received[63], 9);
    EXPECT_EQ(received[64], 0xEE);
}

TEST_F(Transfers, TakeAnEmptyPacketForATimeout) {
    claimed();
    device->packets = {{0, {}, -1}};
    EXPECT_EQ(read(), LIBUSB_ERROR_TIMEOUT);
    EXPECT_EQ(intf.interrupt_response, 0);
    EXPECT_EQ(log.count("3:7a01:3c02 - USB Success with actual length 0 bytes\n"), 1);
}

TEST_F(Transfers, LogReadErrorsButNoTimeouts) {
    claimed();
    device->packets = {{LIBUSB_ERROR_TIMEOUT, {}, -1}, {LIBUSB_ERROR_OVERFLOW, {1, 2}, -1}};
    EXPECT_EQ(read(), LIBUSB_ERROR_TIMEOUT);
    EXPECT_EQ(read(), LIBUSB_ERROR_OVERFLOW);
    EXPECT_EQ(received, Bytes(64, 0xEE));
    EXPECT_EQ(log.count("USB returned with"), 1);
    EXPECT_EQ(log.count("3:7a01:3c02 - USB returned with rc=-8, actual length 2 bytes\n"), 1);
    EXPECT_EQ(intf.interrupt_response, 0);
}

TEST_F(Transfers, ReadAPacketThatIsOnlyAnId) {
    claimed(true);
    device->packets = {{0, {2}, -1}};
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(report_id, 2);
    EXPECT_EQ(actual, 0);
}

TEST_F(Transfers, ReadNothingFromAnEndpointWhoseSizeByteIsZero) {
    claimed(true);
    intf.InterruptEndpointInSize = 0;
    device->packets = {{0, {2, 3}, 2}};
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(actual, 0);
    EXPECT_EQ(report_id, 0);
    EXPECT_THAT(received, Each(0xEE));
}

TEST_F(Transfers, DoNotReadWithoutMemory) {
    claimed();
    device->packets = {{0, {1}, -1}};
    fail_nothrow_new(true);
    EXPECT_EQ(read(), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_TRUE(usb.interrupts.empty());
}

TEST_F(Transfers, DoNotReadAnInterfaceThatWasReleased) {
    claimed();
    intf.ReleaseInterface(0);
    EXPECT_EQ(read(), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_TRUE(usb.interrupts.empty());
}

TEST_F(Transfers, WriteToTheInterruptOutEndpoint) {
    claimed();
    Bytes data(4, 7);
    device->packets = {{0, data, -1}};
    EXPECT_EQ(intf.HidInterruptWrite(data.data(), 4, &actual, 30), 0);
    EXPECT_EQ(actual, 4);
    EXPECT_EQ(usb.interrupts[0].endpoint, 0x02);
    EXPECT_EQ(usb.interrupts[0].length, 4);
    EXPECT_EQ(usb.interrupts[0].timeout, 30U);
}

TEST_F(Transfers, KeepBulkAndInterruptApart) {
    claimed();
    Bytes data(4, 7);
    p_libusb_bulk_transfer = [](libusb_device_handle*, unsigned char endpoint, unsigned char*,
                                int length, int* count, unsigned int timeout) {
        *count = length;
        return endpoint + static_cast<int>(timeout);
    };
    EXPECT_EQ(intf.BulkTransfer(0x02, data.data(), 4, &actual, 30), 32);
    EXPECT_EQ(actual, 4);
    EXPECT_TRUE(usb.interrupts.empty());
    EXPECT_EQ(intf.InterruptTransfer(0x02, data.data(), 4, &actual, 30), LIBUSB_ERROR_TIMEOUT);
    EXPECT_EQ(actual, 0);
    EXPECT_EQ(usb.interrupts.size(), 1U);
}

// --- input and feature reports by control transfer ---

TEST_F(Transfers, GetAnInputReportByIdUpToItsSize) {
    claimed(true);
    device->feature = Bytes(40, 6);
    Bytes data(40);
    EXPECT_EQ(intf.HidGetInputReport(2, data.data(), 40, 60), 8);
    EXPECT_EQ(usb.controls[0].type, 0xA1);
    EXPECT_EQ(usb.controls[0].request, 1);
    EXPECT_EQ(usb.controls[0].value, 0x0102);
    EXPECT_EQ(usb.controls[0].length, 8);
    EXPECT_EQ(usb.controls[0].timeout, 60U);
    EXPECT_EQ(intf.HidGetInputReport(7, data.data(), 40, 60), 0);
    EXPECT_EQ(usb.controls[1].length, 0);
}

TEST_F(Transfers, GetAnInputReportByUsageInTheCallersLength) {
    claimed(true);
    Bytes data(40);
    intf.HidGetInputReport(flash_page, 0xA002, data.data(), 40, 60);
    EXPECT_EQ(usb.controls[0].value, 0x0102);
    EXPECT_EQ(usb.controls[0].length, 40);
    intf.HidGetInputReport(flash_page, 0x0777, data.data(), 40, 60);
    EXPECT_EQ(usb.controls[1].value, 0x0100);
}

TEST_F(Transfers, GetAFeatureReportByUsage) {
    claimed(false, 16, 8);
    device->feature = {1, 2, 3, 4, 5, 6, 7, 8};
    Bytes data(20, 0xEE);
    EXPECT_EQ(intf.HidGetFeatureReport(flash_page, 0xA003, data.data(), 20, 60), 8);
    EXPECT_EQ(usb.controls[0].type, 0xA1);
    EXPECT_EQ(usb.controls[0].request, 1);
    EXPECT_EQ(usb.controls[0].value, 0x0300);
    EXPECT_EQ(usb.controls[0].length, 8);
    EXPECT_EQ(data[7], 8);
    EXPECT_EQ(data[8], 0xEE);
}

TEST_F(Transfers, TakeTheIdOffAFeatureReportAndCopyOneByteLess) {
    claimed(true, 16, 8);
    device->feature = {3, 2, 3, 4, 5, 6, 7, 8};
    Bytes data(8, 0xEE);
    EXPECT_EQ(intf.HidGetFeatureReport(flash_page, 0xA003, data.data(), 8, 60), 8);
    EXPECT_EQ(usb.controls[0].value, 0x0303);
    EXPECT_EQ(data, (Bytes{2, 3, 4, 5, 6, 7, 8, 0xEE}));
    data.assign(4, 0xEE);
    EXPECT_EQ(intf.HidGetFeatureReport(flash_page, 0xA003, data.data(), 4, 60), 8);
    EXPECT_EQ(data, (Bytes{2, 3, 4, 0xEE}));
}

TEST_F(Transfers, CopyNothingOfAnEmptyOrTooSmallFeatureReport) {
    claimed(true, 16, 8);
    Bytes data(8, 0xEE);
    EXPECT_EQ(intf.HidGetFeatureReport(flash_page, 0xA003, data.data(), 8, 60), 0);
    device->feature = {3, 2, 3};
    EXPECT_EQ(intf.HidGetFeatureReport(flash_page, 0xA003, data.data(), 0, 60), 3);
    EXPECT_EQ(intf.HidGetFeatureReport(flash_page, 0x0777, data.data(), 8, 60), 0);
    EXPECT_EQ(usb.controls.back().value, 0x0300);
    EXPECT_EQ(usb.controls.back().length, 0);
    EXPECT_EQ(data, Bytes(8, 0xEE));
}

TEST_F(Transfers, NeverCopyMoreThanTheFeatureReportsSize) {
    claimed(false, 16, 8);
    device->feature = Bytes(8, 1);
    device->control_rcs = {5000};
    Bytes data(20, 0xEE);
    EXPECT_EQ(intf.HidGetFeatureReport(flash_page, 0xA003, data.data(), 20, 60), 5000);
    EXPECT_EQ(data[7], 1);
    EXPECT_EQ(data[8], 0xEE);
}

TEST_F(Transfers, PassOnAFailedFeatureRequest) {
    claimed();
    Bytes data(8, 0xEE);
    device->control_rcs = {LIBUSB_ERROR_PIPE};
    EXPECT_EQ(intf.HidGetFeatureReport(flash_page, 0xA003, data.data(), 8, 60), LIBUSB_ERROR_PIPE);
    fail_nothrow_new(true);
    EXPECT_EQ(intf.HidGetFeatureReport(flash_page, 0xA003, data.data(), 8, 60),
              LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(usb.controls.size(), 1U);
    EXPECT_EQ(data, Bytes(8, 0xEE));
}

TEST_F(Transfers, GetAndSetAFeatureReportById) {
    claimed(true, 16, 8);
    Bytes data(20, 4);
    intf.HidGetFeatureReport(3, data.data(), 20, 60);
    EXPECT_EQ(usb.controls[0].value, 0x0303);
    EXPECT_EQ(usb.controls[0].length, 8);
    EXPECT_EQ(intf.HidSetFeatureReport(3, data.data(), 20, 60), 8);
    EXPECT_EQ(usb.controls[1].type, 0x21);
    EXPECT_EQ(usb.controls[1].request, 9);
    EXPECT_EQ(usb.controls[1].value, 0x0303);
    EXPECT_EQ(usb.controls[1].data, Bytes(8, 4));
    EXPECT_EQ(intf.HidSetFeatureReport(9, data.data(), 20, 60), 0);
}

TEST_F(Transfers, SetAFeatureReportAsItIs) {
    claimed(true, 16, 8);
    Bytes data{3, 1, 2};
    EXPECT_EQ(intf.HidSetFeatureReport(flash_page, 0xA003, data.data(), 3, 60), 3);
    EXPECT_EQ(usb.controls[0].value, 0x0303);
    EXPECT_EQ(usb.controls[0].data, data);
    EXPECT_EQ(intf.HidSetFeatureReport(flash_page, 0x0777, data.data(), 3, 60), 0);
    EXPECT_EQ(usb.controls[1].value, 0x0300);
    EXPECT_EQ(usb.controls[1].length, 0);
}

namespace {

// --- read and write handles ---

class Handles : public Transfers {
  protected:
    void opened(int interface_number = 0) {
        device = &usb.add(3, 17, 0x7A01, 0x3C02);
        make_flash_device(*device);
        ASSERT_EQ(intf.OpenDevice(flash_path(*device, interface_number).data()), 0);
    }
    int calls_of(const std::string& call) {
        const auto calls = usb.calls();
        return static_cast<int>(std::count(calls.begin(), calls.end(), call));
    }
};

}  // namespace

TEST_F(Handles, AreNullWithoutADevice) {
    EXPECT_EQ(intf.OpenReadHandle(), nullptr);
    EXPECT_EQ(intf.OpenWriteHandle(), nullptr);
    intf.CloseReadHandle();
    intf.CloseWriteHandle();
    EXPECT_THAT(usb.calls(), ElementsAre());
}

TEST_F(Handles, ClaimTheInterfaceOfThePathOnce) {
    opened(5);
    EXPECT_EQ(intf.OpenReadHandle(), intf.handle);
    EXPECT_EQ(intf.intfnum, 5);
    EXPECT_EQ(intf.OpenWriteHandle(), intf.handle);
    EXPECT_EQ(intf.OpenReadHandle(), intf.handle);
    EXPECT_EQ(calls_of("claim 5"), 1);
}

TEST_F(Handles, StayNullWhenTheInterfaceCannotBeClaimed) {
    opened();
    device->claim_rcs = {LIBUSB_ERROR_NO_DEVICE};
    EXPECT_EQ(intf.OpenReadHandle(), nullptr);
    EXPECT_EQ(intf.read_dev_handle, nullptr);
}

TEST_F(Handles, AreGivenUnclaimedWithoutAConfiguration) {
    opened();
    intf.FreeConfigDescriptor(intf.config);
    intf.config = nullptr;
    intf.config_descriptor_retrieved = 0;
    EXPECT_EQ(intf.OpenReadHandle(), intf.handle);
    EXPECT_EQ(intf.intfnum, 0xBAD);
    intf.CloseReadHandle();
    EXPECT_EQ(calls_of("release 0"), 0);
}

TEST_F(Handles, ClaimAnewAnInterfaceThatWasReleasedUnderThem) {
    opened();
    libusb_device_handle* const handle = intf.OpenReadHandle();
    intf.ReleaseInterface(0);
    EXPECT_EQ(intf.OpenReadHandle(), handle);
    EXPECT_EQ(calls_of("claim 0"), 2);
    EXPECT_EQ(intf.intfnum, 0);
    intf.ReleaseInterface(0);
    device->claim_rcs = {LIBUSB_ERROR_NO_DEVICE};
    EXPECT_EQ(intf.OpenReadHandle(), handle);
    EXPECT_EQ(intf.OpenWriteHandle(), handle);
    EXPECT_EQ(calls_of("claim 0"), 4);
}

TEST_F(Handles, KeepTheInterfaceUntilTheLastOfBothCloses) {
    opened();
    intf.OpenReadHandle();
    intf.OpenWriteHandle();
    intf.CloseReadHandle();
    EXPECT_EQ(intf.read_dev_handle, nullptr);
    EXPECT_EQ(intf.intfnum, 0);
    EXPECT_EQ(calls_of("release 0"), 0);
    intf.CloseReadHandle();
    EXPECT_EQ(calls_of("release 0"), 0);
    intf.CloseWriteHandle();
    EXPECT_EQ(intf.intfnum, 0xBAD);
    EXPECT_EQ(calls_of("release 0"), 1);
}

TEST_F(Handles, ReleaseWhenTheReaderClosesLast) {
    opened();
    intf.OpenReadHandle();
    intf.OpenWriteHandle();
    intf.CloseWriteHandle();
    EXPECT_EQ(calls_of("release 0"), 0);
    intf.CloseReadHandle();
    EXPECT_EQ(calls_of("release 0"), 1);
}

TEST_F(Handles, AreGoneWithTheDevice) {
    opened();
    intf.OpenReadHandle();
    intf.OpenWriteHandle();
    intf.CloseDevice();
    EXPECT_EQ(intf.handle, nullptr);
    EXPECT_EQ(intf.read_dev_handle, nullptr);
    EXPECT_EQ(intf.write_dev_handle, nullptr);
    EXPECT_EQ(intf.intfnum, 0xBAD);
    EXPECT_EQ(intf.config_descriptor_retrieved, 0);
    EXPECT_EQ(calls_of("release 0"), 1);
    EXPECT_EQ(calls_of("close 17"), 1);
    intf.CloseDevice();
    EXPECT_EQ(calls_of("close 17"), 1);
}

TEST_F(Handles, KeepTheReportTablesAfterTheDeviceIsClosed) {
    opened();
    intf.OpenReadHandle();
    intf.CloseDevice();
    EXPECT_EQ(intf.OutputReportCount, 1);
    EXPECT_EQ(intf.OutputReports[0]->Usage, 0xA001);
}
