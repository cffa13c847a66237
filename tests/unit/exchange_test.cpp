#include "support/exchange.h"

#include "journal/output.h"
#include "journal/zelfwtrace.h"
#include "session/zelflash.h"
#include "settings.h"
#include "support/failing_new.h"
#include "support/temporary_directory.h"
#include "support/trace_file.h"
#include "usb/zelflshhid.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/time.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

TEST_F(Exchange, ASignalDoesNotCutASleepShort) {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);
    const itimerval soon{{0, 10000}, {0, 10000}};
    setitimer(ITIMER_REAL, &soon, nullptr);
    const auto start = std::chrono::steady_clock::now();
    flash->chSleep(100);
    const auto slept = std::chrono::steady_clock::now() - start;
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_GE(slept, std::chrono::milliseconds(95));
}

TEST_F(Exchange, NothingGoesOutOrInWithoutADevice) {
    char byte = 0;
    EXPECT_EQ(flash->write_flash(&byte, 1), 2);
    EXPECT_EQ(read(0), 3);
    EXPECT_EQ(read(100), 3);
    EXPECT_EQ(flash->read_data(&byte, 1), 3);
    EXPECT_EQ(flash->send_reset_command(), 2);
    EXPECT_EQ(send(wire::device_information_query), 2);
}

TEST_F(Exchange, CommandsAreSentByteForByte) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    flashEntry entry{};

    EXPECT_EQ(flash->send_status_request(), 0);
    EXPECT_EQ(flash->send_reset_command(), 0);
    EXPECT_EQ(flash->send_stop_command(), 0);
    EXPECT_EQ(flash->check_device_connection(slot), 0);
    device.report({0x01});
    EXPECT_EQ(flash->send_erase_command(slot), 0);
    flash->get_device_info(&entry, slot);
    flash->get_ec_level(&entry, slot);
    flash->read_extended_component_list(&entry, slot);
    flash->add_components_to_table(&entry, slot);
    flash->add_component_x_version_info(&entry, 1, 0, slot);
    flash->add_component_x_version_info(&entry, 19, 0, slot);

    EXPECT_EQ(device.commands(),
              (std::vector<Bytes>{{0x04, 0x00, 0x00, 0x20},
                                  {0x04, 0x00, 0x00, 0x40},
                                  {0x02, 0x00, 0x00, 0x80},
                                  {0x03, 0x00, 0x00, 0x00, 0x01},
                                  {0x04, 0x00, 0x01, 0x00},
                                  {0x03, 0x00, 0x00, 0x00, 0x01},
                                  {0x02, 0x00, 0x00, 0x80},
                                  {0x06, 0x00, 0x20, 0x00, 0xFF, 0xFF, 0x00, 0x02},
                                  {0x06, 0x00, 0x20, 0x00, 0xFF, 0xFF, 0x00, 0x01},
                                  {0x06, 0x00, 0x20, 0x00, 0x02, 0xF1, 0x00, 0x01},
                                  {0x06, 0x00, 0x20, 0x00, 0x02, 0xF3, 0x00, 0x01}}));
}

TEST_F(Exchange, OnlyStatusRequestAndEraseWaitBeforeTheyAreSent) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    const size_t before = sleeps.slept().size();
    flash->send_reset_command();
    flash->send_stop_command();
    EXPECT_EQ(sleeps.slept().size(), before);
    flash->send_status_request();
    flash->send_erase_command(slot);
    EXPECT_EQ(sleeps.count(10), 2);
}

TEST_F(Exchange, WhatArrivedEarlierIsNeverTheAnswer) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    flash->use_thread_reading = 1;
    for (const auto& sender : {&ZELFLASH::send_status_request, &ZELFLASH::send_reset_command,
                               &ZELFLASH::send_stop_command}) {
        flash->status_ready = 1;
        device.on_command = [this](const Bytes&) { EXPECT_EQ(flash->status_ready, 0); };
        EXPECT_EQ((flash.get()->*sender)(), 0);
        EXPECT_EQ(flash->status_ready, 0);
    }
    flash->status_ready = 1;
    EXPECT_EQ(send(wire::erase, 0), 0);
    EXPECT_EQ(flash->status_ready, 0);
    flash->use_thread_reading = 0;
    flash->status_ready = 1;
    device.on_command = nullptr;
    EXPECT_EQ(flash->send_reset_command(), 0);
    EXPECT_EQ(flash->status_ready, 1);
}

TEST_F(Exchange, PassesTheCodesOfFailedTransfersOn) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    char byte = 0;
    device.next_write_results = {LIBUSB_ERROR_PIPE, LIBUSB_ERROR_NO_DEVICE, LIBUSB_ERROR_TIMEOUT};
    EXPECT_EQ(flash->write_flash(&byte, 1), 8);
    EXPECT_EQ(debugged("WriteFlash rc=8"), 1);
    EXPECT_EQ(flash->write_flash(&byte, 1), 13);
    EXPECT_EQ(send(wire::erase), 8);
    EXPECT_EQ(debugged("Write failed on status of erase command, rc=8"), 1);
    device.report_failure(LIBUSB_ERROR_IO);
    EXPECT_EQ(read(0), 7);
    EXPECT_EQ(debugged("Sending Read Request to a002"), 1);
    EXPECT_EQ(debugged("Reading data from a002 returned rc=7"), 1);
    EXPECT_EQ(logged("Read Request to a002 failed, rc=7"), 1);
    device.report_failure(LIBUSB_ERROR_PIPE);
    EXPECT_EQ(read(0), 13);
}

TEST_F(Exchange, AResetCountsAsSentWhenTheDeviceDropsOff) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.next_write_results = {LIBUSB_ERROR_NO_DEVICE};
    EXPECT_EQ(flash->send_reset_command(), 0);
    EXPECT_EQ(logged("Reset sent, write failure expected!"), 1);
}

TEST_F(Exchange, DataComesFromTheFirstFeatureReport) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.next_features = {{0, {1, 2, 3}}};
    char data[16] = {};
    EXPECT_EQ(flash->read_data(data, sizeof data), 0);
    EXPECT_EQ(std::memcmp(data, "\x01\x02\x03\x00", 4), 0);
    EXPECT_EQ(device.feature_requests(), 1);
    EXPECT_EQ(debugged("Sending Get Feature Report to a003"), 1);
    EXPECT_EQ(debugged("Get Feature Report on a003 returned rc=0"), 1);
    EXPECT_EQ(log.count("Report to 1603"), 0);
}

TEST_F(Exchange, DataFallsBackToTheOtherFeatureReport) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.next_features = {{LIBUSB_ERROR_PIPE, {}}, {0, {9}}};
    char data[16] = {};
    EXPECT_EQ(flash->read_data(data, sizeof data), 0);
    EXPECT_EQ(data[0], 9);
    EXPECT_EQ(device.feature_requests(), 2);
    EXPECT_EQ(logged("Get Feature Report a003 rc=12"), 1);
    EXPECT_EQ(debugged("Sending Get Feature Report to 1603"), 1);
    EXPECT_EQ(logged("Get Feature Report 1603 rc=0"), 0);
}

TEST_F(Exchange, DataThatNeitherReportGivesFailsWithTheSecondCode) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.next_features = {{LIBUSB_ERROR_PIPE, {}}, {LIBUSB_ERROR_NO_DEVICE, {}}};
    char data[16] = {};
    EXPECT_EQ(flash->read_data(data, sizeof data), 13);
    EXPECT_EQ(logged("Get Feature Report a003 rc=12"), 1);
    EXPECT_EQ(logged("Get Feature Report 1603 rc=13"), 1);
}

TEST_F(Exchange, ACommandWithoutTimeOutIsNotWaitedFor) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.other_answer = {};
    EXPECT_EQ(send(wire::erase, 0), 0);
    EXPECT_EQ(device.count(wire::erase), 1);
    EXPECT_EQ(debugged("send_command: write_flash returned - rc=0, last_status=00"), 1);
}

TEST_F(Exchange, ACommandWithTheShortestTimeOutIsWaitedFor) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.other_answer = {};
    device.report_failure(LIBUSB_ERROR_OVERFLOW);
    EXPECT_EQ(send(wire::erase, 1), 7);
}

TEST_F(Exchange, TellsOfACompletedCommand) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    EXPECT_EQ(send(wire::erase), 0);
    EXPECT_EQ(debugged("Command completed"), 1);
    EXPECT_EQ(debugged("send_command: read_flash returned - rc=0, status[0]=01 "
                       "last_status=00"),
              1);
    device.other_answer = {{0x00}};
    EXPECT_EQ(send(wire::erase), 0);
    EXPECT_EQ(debugged("Command completed"), 1);
}

TEST_F(Exchange, AFailedReadOfTheStatusIsFinal) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.other_answer = {};
    device.report_failure(LIBUSB_ERROR_OVERFLOW);
    EXPECT_EQ(send(wire::erase), 7);
    EXPECT_EQ(debugged("Read failed on status of command, rc=7"), 1);
    EXPECT_EQ(device.count(wire::erase), 1);
}

TEST_F(Exchange, ARejectedCommandIsSentOnceMoreAfterHalfASecond) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.next_answers[wire::erase] = {{{0x80}}};
    EXPECT_EQ(send(wire::erase), 0);
    EXPECT_EQ(device.count(wire::erase), 2);
    EXPECT_EQ(sleeps.count(500), 1);
    EXPECT_EQ(debugged("Command reject sending command trying one more time"), 1);
    EXPECT_EQ(debugged("Command completed"), 1);
}

TEST_F(Exchange, ASecondRejectEndsTheCommand) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.next_answers[wire::erase] = {{{0x80}}, {{0x81}}};
    EXPECT_EQ(send(wire::erase), 2);
    EXPECT_EQ(device.count(wire::erase), 2);
    EXPECT_EQ(logged("Bad status (81) on resend of command, stop flash operation"), 1);
    // The new status counts for this line too.
    EXPECT_EQ(debugged("Command completed"), 1);
}

TEST_F(Exchange, AnOperationErrorAfterARejectEndsTheCommand) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.next_answers[wire::erase] = {{{0x80}}, {{0x40}}};
    EXPECT_EQ(send(wire::erase), 2);
    EXPECT_EQ(logged("Bad status (40) on resend of command, stop flash operation"), 1);
}

TEST_F(Exchange, TheResendsOwnFailuresArePassedOn) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.next_answers[wire::erase] = {{{0x80}}, {}, {{0x80}}};
    device.next_write_results = {0, LIBUSB_ERROR_NO_DEVICE};
    EXPECT_EQ(send(wire::erase), 13);
    device.on_command = [&device, count = 0](const Bytes&) mutable {
        if (++count == 2) {
            device.report_failure(LIBUSB_ERROR_IO);
        }
    };
    device.next_answers[wire::erase] = {{{0x80}}, {}};
    EXPECT_EQ(send(wire::erase), 7);
    EXPECT_EQ(log.count("on resend of command"), 0);
}

TEST_F(Exchange, ACompletedRejectIsForgottenWhenItsResendFails) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.next_answers[wire::erase] = {{{0x81}}};
    device.next_write_results = {0, LIBUSB_ERROR_NO_DEVICE};
    EXPECT_EQ(send(wire::erase), 13);
    EXPECT_EQ(device.count(wire::erase), 2);
    EXPECT_EQ(debugged("Command completed"), 0);
}

TEST_F(Exchange, ARejectWhileGatheringInformationIsFinal) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.other_answer = {{0x81}};
    global_reading_information = 1;
    EXPECT_EQ(send(wire::erase), 2);
    EXPECT_EQ(device.count(wire::erase), 1);
    EXPECT_EQ(sleeps.count(500), 0);
    EXPECT_EQ(debugged("Command reject sending command"), 1);
    EXPECT_EQ(debugged("Command completed"), 1);
}

TEST_F(Exchange, AnOperationErrorIsFinal) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.other_answer = {{0x40}};
    EXPECT_EQ(send(wire::erase), 2);
    EXPECT_EQ(device.count(wire::erase), 1);
    EXPECT_EQ(debugged("Operation error on sending command, stop flash operation"), 1);
    // With the reject flag beside it, it is a reject.
    device.next_answers[wire::erase] = {{{0xC0}}, {{0x01}}};
    EXPECT_EQ(send(wire::erase), 0);
}

TEST_F(Exchange, EraseIsTriedTwice) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    // Erasing is always tried again, information gathering or not.
    global_reading_information = 1;
    device.next_answers[wire::erase] = {{{0x80}}};
    EXPECT_EQ(flash->send_erase_command(slot), 0);
    EXPECT_EQ(device.count(wire::erase), 2);
    EXPECT_EQ(sleeps.count(500), 1);
    EXPECT_EQ(logged("Command reject erasing image, trying one more time"), 1);
}

TEST_F(Exchange, EraseFailsAfterASecondBadStatus) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    for (const unsigned char status : Bytes{0x80, 0x40}) {
        device.next_answers[wire::erase] = {{{0x80}}, {{status}}};
        EXPECT_EQ(flash->send_erase_command(slot), 2);
    }
    EXPECT_EQ(device.count(wire::erase), 4);
    EXPECT_EQ(logged("Bad status (80) on second erase of image, stop flash operation"), 1);
    EXPECT_EQ(logged("Bad status (40) on second erase of image, stop flash operation"), 1);
}

TEST_F(Exchange, EraseFailsOnAnOperationErrorAtOnce) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.other_answer = {{0x41}};
    EXPECT_EQ(flash->send_erase_command(slot), 2);
    EXPECT_EQ(device.count(wire::erase), 1);
    EXPECT_EQ(logged("Operation error on erase of image, stop flash operation"), 1);
}

TEST_F(Exchange, EraseTellsOfFailedTransfersOnlyTheFirstTime) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.next_write_results = {LIBUSB_ERROR_PIPE};
    EXPECT_EQ(flash->send_erase_command(slot), 8);
    EXPECT_EQ(logged("Write failed on status of erase command, rc=8"), 1);
    device.next_answers[wire::erase] = {{}, {{0x80}}, {{0x80}}, {}};
    device.report_failure(LIBUSB_ERROR_IO);
    EXPECT_EQ(flash->send_erase_command(slot), 7);
    EXPECT_EQ(logged("Read failed on status of erase command, rc=7"), 1);
    device.next_write_results = {0, LIBUSB_ERROR_NO_DEVICE};
    EXPECT_EQ(flash->send_erase_command(slot), 13);
    device.on_command = [&device, count = 0](const Bytes&) mutable {
        if (++count == 2) {
            device.report_failure(LIBUSB_ERROR_PIPE);
        }
    };
    EXPECT_EQ(flash->send_erase_command(slot), 13);
    EXPECT_EQ(log.count("failed on status of erase command, rc=8"), 1);
    EXPECT_EQ(log.count("Write failed on status"), 1);
    EXPECT_EQ(log.count("Read failed on status"), 1);
}

TEST_F(Exchange, EraseTellsOfFailuresWhenVerbose) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    struct {
        std::function<void()> prepare;
        const char* told;
    } const failures[] = {
        {[&] { device.next_write_results = {LIBUSB_ERROR_PIPE}; },
         "Write failed on status of erase command, rc=8\n"},
        {[&] {
             device.next_answers[wire::erase] = {{}};
             device.report_failure(LIBUSB_ERROR_IO);
         },
         "Read failed on status of erase command, rc=7\n"},
        {[&] { device.next_answers[wire::erase] = {{{0x40}}}; },
         "Operation error on erase of image, stop flash operation\n"},
        {[&] {
             device.next_answers[wire::erase] = {{{0x80}}, {{0x80}}};
         },
         "Command reject erasing image, trying one more time\n"
         "Bad status (80) on second erase of image, stop flash operation\n"},
    };
    const auto erase = [this] { EXPECT_NE(flash->send_erase_command(slot), 0); };
    for (const auto& failure : failures) {
        failure.prepare();
        EXPECT_EQ(console_of(1, 0, erase), "");
        failure.prepare();
        EXPECT_EQ(console_of(2, 1, erase), failure.told);
    }
}

TEST_F(Exchange, FailuresOfSingleTransfersStayInTheLog) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.next_answers[wire::erase] = {{{0x80}}, {{0x80}}};
    EXPECT_EQ(console_of(2, 1, [this] { EXPECT_EQ(send(wire::erase), 2); }), "");
    device.report_failure(LIBUSB_ERROR_IO);
    EXPECT_EQ(console_of(2, 1, [this] { EXPECT_EQ(read(0), 7); }), "");
    char data[3] = {};
    EXPECT_EQ(console_of(2, 1, [&] { EXPECT_EQ(flash->read_data(data, 3), 12); }), "");
    EXPECT_EQ(logged("Bad status (80) on resend of command, stop flash operation"), 1);
    EXPECT_EQ(logged("Read Request to a002 failed, rc=7"), 1);
    EXPECT_EQ(logged("Get Feature Report a003 rc=12"), 1);
    EXPECT_EQ(logged("Get Feature Report 1603 rc=12"), 1);
}

TEST_F(Exchange, EraseTakesItsOwnTimeOut) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    flash->use_thread_reading = 1;
    flash->ThreadTable[slot].device_closed = 0;
    erase_timeout = 45;
    EXPECT_EQ(flash->send_erase_command(slot), 7);
    EXPECT_EQ(sleeps.count(15), 3);
}

TEST_F(Exchange, QueriesTakeTheTimeOutForInformation) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    flash->use_thread_reading = 1;
    information_timeout = 45;
    flashEntry entry{};
    EXPECT_EQ(flash->get_device_info(&entry, slot), 7);
    EXPECT_EQ(sleeps.count(15), 3);
    EXPECT_EQ(flash->get_ec_level(&entry, slot), 7);
    EXPECT_EQ(sleeps.count(15), 6);
    EXPECT_EQ(flash->read_extended_component_list(&entry, slot), 6);
    EXPECT_EQ(sleeps.count(15), 9);
    EXPECT_EQ(flash->add_components_to_table(&entry, slot), 6);
    EXPECT_EQ(sleeps.count(15), 12);
    EXPECT_EQ(flash->add_component_x_version_info(&entry, 1, 1, slot), 7);
    EXPECT_EQ(sleeps.count(15), 15);
    EXPECT_EQ(flash->check_device_connection(slot), 0);
    EXPECT_EQ(sleeps.count(15), 15);
}

namespace {

// The journal of transfers.

class TransferJournal : public Exchange {
  protected:
    TransferJournal() { trace = std::make_unique<Trace>(name.c_str(), 2, 0); }
    ~TransferJournal() override { trace.reset(); }

    /// The transfers that the trace file holds.
    std::vector<TraceRecord> transfers() {
        trace.reset();
        std::vector<TraceRecord> found = read_trace(name);
        std::erase_if(found, [](const TraceRecord& record) {
            return record.kind < record_kind::written || record.kind > record_kind::feature;
        });
        return found;
    }

    TemporaryDirectory directory;
    std::string name = directory.path("trace");
};

Bytes payload_of(const TraceRecord& record) {
    return {record.payload.begin(), record.payload.end()};
}

}  // namespace

TEST_F(TransferJournal, HoldsEachTransferBehindProductAndUsage) {
    FlashPeripheral& device = bus.add(0x41A3);
    open_directly(device, slot);
    device.next_features = {{0, {1, 2}}, {LIBUSB_ERROR_PIPE, {}}, {0, {3}}};
    EXPECT_EQ(send(wire::device_information_query), 0);
    char data[3] = {};
    EXPECT_EQ(flash->read_data(data, 3), 0);
    EXPECT_EQ(flash->read_data(data, 3), 0);

    const std::vector<TraceRecord> found = transfers();
    ASSERT_EQ(found.size(), 4U);
    EXPECT_EQ(found[0].kind, 405U);
    EXPECT_EQ(payload_of(found[0]),
              (Bytes{0x41, 0xA3, 0xA0, 0x01, 0, 0, 0, 0, 0x03, 0, 0, 0, 0x01}));
    EXPECT_EQ(found[1].kind, 406U);
    EXPECT_EQ(payload_of(found[1]),
              (Bytes{0x41, 0xA3, 0xA0, 0x02, 0, 0, 0, 0, 0x01, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(found[2].kind, 407U);
    EXPECT_EQ(payload_of(found[2]), (Bytes{0x41, 0xA3, 0xA0, 0x03, 0, 0, 0, 0, 1, 2, 0}));
    EXPECT_EQ(found[3].kind, 407U);
    // The usage that answered.
    EXPECT_EQ(payload_of(found[3]), (Bytes{0x41, 0xA3, 0x16, 0x03, 0, 0, 0, 0, 3, 2, 0}));
}

TEST_F(TransferJournal, HoldsWhatWasWrittenEvenWhenThatFailed) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.next_write_results = {LIBUSB_ERROR_PIPE};
    EXPECT_EQ(send(wire::erase), 8);
    EXPECT_EQ(transfers().size(), 1U);
}

TEST_F(TransferJournal, NeedsNoMemoryForItsRecords) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    Bytes command = wire::erase;
    auto* const bytes = reinterpret_cast<char*>(command.data());
    const auto size = static_cast<unsigned int>(command.size());
    OutputLevel = 0;
    fail_nothrow_new(true);
    const int rc = flash->write_flash(bytes, size);
    fail_nothrow_new(false);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(device.count(wire::erase), 1);
    EXPECT_EQ(transfers().size(), 1U);
}

TEST_F(TransferJournal, HoldsNoFailedReads) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.report_failure(LIBUSB_ERROR_IO);
    EXPECT_EQ(read(0), 7);
    char data[3] = {};
    EXPECT_EQ(flash->read_data(data, 3), 12);
    EXPECT_TRUE(transfers().empty());
}
