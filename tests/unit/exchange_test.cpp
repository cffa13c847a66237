#include "journal/file_handle.h"
#include "journal/output.h"
#include "journal/zelfwtrace.h"
#include "session/zelflash.h"
#include "settings.h"
#include "support/failing_new.h"
#include "support/firmware_bytes.h"
#include "support/flash_test.h"
#include "usb/zelflshhid.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/time.h>

#include <array>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

namespace {

constexpr int slot = 3;

class Exchange : public FlashTest {
  protected:
    int send(Bytes command, int timeout = 100) {
        return flash->send_command(reinterpret_cast<char*>(command.data()),
                                   static_cast<int>(command.size()), slot, timeout);
    }
    int wait(int timeout, int length = 8) {
        return flash->wait_for_message(timeout, answer.data(), length, slot);
    }
    int read(int timeout) {
        return flash->read_flash(answer.data(), status_report_size, timeout, slot);
    }
    Bytes answer_bytes() const { return {answer.begin(), answer.end()}; }

    std::array<char, 8> answer{};
};

/// Waiting for the reader: no reader runs, the test sets the flags itself.
class Waiting : public Exchange {
  protected:
    Waiting() {
        flash->use_thread_reading = 1;
        flash->ThreadTable[slot].device_closed = 0;
    }
    SleepDouble instant{0};
};

TEST_F(Waiting, PollsSixTimesInAHundredMilliseconds) {
    EXPECT_EQ(7, wait(100));
    EXPECT_EQ(std::vector<long>(6, 15), instant.slept());
    EXPECT_EQ(1, debugged("wait_for_message(timeout=100, length=8), loop_count=6, sleep_time=15, "
                          "status_ready=0, device_closed=0"));
    EXPECT_EQ(1, debugged("wait_for_message: returning rc=7 status_ready=0 device_closed=0 "
                          "data_length=0"));
}

TEST_F(Waiting, GivesUpAtOnceBelowThePollInterval) {
    EXPECT_EQ(7, wait(10));
    EXPECT_EQ(7, wait(14));
    EXPECT_TRUE(instant.slept().empty());
    EXPECT_EQ(7, wait(15));
    EXPECT_EQ(1U, instant.slept().size());
}

TEST_F(Waiting, TakesAReportThatIsThereWhateverTheTimeOut) {
    std::memcpy(flash->last_status, "\x01\x02\x03\x04\x05\x06\x07\x08", 8);
    flash->status_ready = 1;
    EXPECT_EQ(0, wait(10));
    EXPECT_EQ((Bytes{1, 2, 3, 4, 5, 6, 7, 8}), answer_bytes());
    EXPECT_EQ(0, flash->status_ready);
    EXPECT_TRUE(instant.slept().empty());
    EXPECT_EQ(1, debugged("status_ready=1 copying 8 bytes to buffer (01.02.03.04.05.06.07.08) "
                          "length=8, sizeof(status)=8"));
    EXPECT_EQ(1, debugged("wait_for_message: returning rc=0 status_ready=1 device_closed=0 "
                          "data_length=8"));
}

TEST_F(Waiting, EndsAsSoonAsAReportComes) {
    instant.after_sleep = [this](int count) {
        if (count == 3) {
            flash->last_status[0] = 0x01;
            flash->status_ready = 1;
        }
    };
    EXPECT_EQ(0, wait(5000));
    EXPECT_EQ(3U, instant.slept().size());
    EXPECT_EQ(0x01, answer[0]);
    EXPECT_EQ(0, flash->status_ready);
}

TEST_F(Waiting, TakesAReportThatComesInTheLastPoll) {
    instant.after_sleep = [this](int count) { flash->status_ready = count == 6 ? 1 : 0; };
    EXPECT_EQ(0, wait(100));
}

TEST_F(Waiting, CopiesNoMoreThanTheBufferOrTheReportHolds) {
    std::memset(flash->last_status, 0x5A, sizeof flash->last_status);
    flash->status_ready = 1;
    EXPECT_EQ(0, wait(100, 3));
    EXPECT_EQ((Bytes{0x5A, 0x5A, 0x5A, 0, 0, 0, 0, 0}), answer_bytes());
    std::array<char, 16> large{};
    flash->status_ready = 1;
    EXPECT_EQ(0, flash->wait_for_message(100, large.data(), 16, slot));
    EXPECT_EQ(0x5A, large[7]);
    EXPECT_EQ(0, large[8]);
}

TEST_F(Waiting, RaisesAShortPollIntervalForGood) {
    flash->sleep_time = 5;
    EXPECT_EQ(7, wait(30));
    EXPECT_EQ(15, flash->sleep_time);
    EXPECT_EQ((std::vector<long>{15, 15}), instant.slept());
}

TEST_F(Waiting, KeepsALongerPollInterval) {
    flash->sleep_time = 40;
    EXPECT_EQ(7, wait(100));
    EXPECT_EQ(40, flash->sleep_time);
    EXPECT_EQ((std::vector<long>{40, 40}), instant.slept());
}

TEST_F(Waiting, AnyOtherMarkOfAReportIsATimeOut) {
    flash->status_ready = 2;
    flash->last_status[0] = 0x01;
    EXPECT_EQ(7, wait(100));
    EXPECT_EQ(0, flash->status_ready);
    EXPECT_EQ(0, answer[0]);
    instant.after_sleep = [this](int) { flash->status_ready = -1; };
    EXPECT_EQ(7, wait(100));
    EXPECT_EQ(1U, instant.slept().size());
}

TEST_F(Waiting, GivesUpOnAClosedDevice) {
    flash->ThreadTable[slot].device_closed = 1;
    EXPECT_EQ(13, wait(5000));
    EXPECT_TRUE(instant.slept().empty());
    EXPECT_EQ(1, debugged("wait_for_message: returning rc=13 status_ready=0 device_closed=1 "
                          "data_length=0"));
}

TEST_F(Waiting, NoticesThatTheDeviceIsClosedMeanwhile) {
    instant.after_sleep = [this](int count) {
        flash->ThreadTable[slot].device_closed = count == 2 ? 1 : 0;
    };
    EXPECT_EQ(13, wait(5000));
    EXPECT_EQ(2U, instant.slept().size());
}

TEST_F(Waiting, AClosedDeviceMattersOnlyWhileItIsWaitedFor) {
    flash->ThreadTable[slot].device_closed = 1;
    EXPECT_EQ(7, wait(10));
    flash->status_ready = 1;
    EXPECT_EQ(0, wait(100));
}

TEST_F(Waiting, TellsOfEachSleepAboveLevelThree) {
    EXPECT_EQ(7, wait(100));
    EXPECT_EQ(0, log.count("sleeping while waiting"));
    OutputLevel = 4;
    EXPECT_EQ(7, wait(100));
    EXPECT_EQ(6, logged("4:sleeping while waiting (status_ready=0, device_closed=0)"));
}

TEST_F(Waiting, ReadingWaitsForTheReaderWhenOneRuns) {
    flash->status_ready = 1;
    flash->last_status[0] = 0x09;
    EXPECT_EQ(0, read(1));
    EXPECT_EQ(0x09, answer[0]);
    EXPECT_EQ(7, read(100));
    EXPECT_EQ(6U, instant.slept().size());
}

TEST_F(Waiting, SecondsAndMillisecondsAreSlept) {
    EXPECT_EQ(0, flash->chSleep(999));
    EXPECT_EQ(0, flash->chSleep(4000));
    EXPECT_EQ(0, flash->chSleep(2015));
    EXPECT_EQ((std::vector<long>{999, 4000, 2015}), instant.slept());
}

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
    EXPECT_EQ(2, flash->write_flash(&byte, 1));
    EXPECT_EQ(3, read(0));
    EXPECT_EQ(3, read(100));
    EXPECT_EQ(3, flash->read_data(&byte, 1));
    EXPECT_EQ(2, flash->send_reset_command());
    EXPECT_EQ(2, send(wire::device_information_query));
}

TEST_F(Exchange, CommandsAreSentByteForByte) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    flashEntry entry{};

    EXPECT_EQ(0, flash->send_status_request());
    EXPECT_EQ(0, flash->send_reset_command());
    EXPECT_EQ(0, flash->send_stop_command());
    EXPECT_EQ(0, flash->check_device_connection(slot));
    device.report({0x01});
    EXPECT_EQ(0, flash->send_erase_command(slot));
    flash->get_device_info(&entry, slot);
    flash->get_ec_level(&entry, slot);
    flash->read_extended_component_list(&entry, slot);
    flash->add_components_to_table(&entry, slot);
    flash->add_component_x_version_info(&entry, 1, 0, slot);
    flash->add_component_x_version_info(&entry, 19, 0, slot);

    EXPECT_EQ((std::vector<Bytes>{{0x04, 0x00, 0x00, 0x20},
                                  {0x04, 0x00, 0x00, 0x40},
                                  {0x02, 0x00, 0x00, 0x80},
                                  {0x03, 0x00, 0x00, 0x00, 0x01},
                                  {0x04, 0x00, 0x01, 0x00},
                                  {0x03, 0x00, 0x00, 0x00, 0x01},
                                  {0x02, 0x00, 0x00, 0x80},
                                  {0x06, 0x00, 0x20, 0x00, 0xFF, 0xFF, 0x00, 0x02},
                                  {0x06, 0x00, 0x20, 0x00, 0xFF, 0xFF, 0x00, 0x01},
                                  {0x06, 0x00, 0x20, 0x00, 0x02, 0xF1, 0x00, 0x01},
                                  {0x06, 0x00, 0x20, 0x00, 0x02, 0xF3, 0x00, 0x01}}),
              device.commands());
}

TEST_F(Exchange, OnlyStatusRequestAndEraseWaitBeforeTheyAreSent) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    const size_t before = sleeps.slept().size();
    flash->send_reset_command();
    flash->send_stop_command();
    EXPECT_EQ(before, sleeps.slept().size());
    flash->send_status_request();
    flash->send_erase_command(slot);
    EXPECT_EQ(2, sleeps.count(10));
}

TEST_F(Exchange, WhatArrivedEarlierIsNeverTheAnswer) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    flash->use_thread_reading = 1;
    for (const auto& sender : {&ZELFLASH::send_status_request, &ZELFLASH::send_reset_command,
                               &ZELFLASH::send_stop_command}) {
        flash->status_ready = 1;
        device.on_command = [this](const Bytes&) { EXPECT_EQ(0, flash->status_ready); };
        EXPECT_EQ(0, (flash.get()->*sender)());
        EXPECT_EQ(0, flash->status_ready);
    }
    flash->status_ready = 1;
    EXPECT_EQ(0, send(wire::erase, 0));
    EXPECT_EQ(0, flash->status_ready);
    flash->use_thread_reading = 0;
    flash->status_ready = 1;
    device.on_command = nullptr;
    EXPECT_EQ(0, flash->send_reset_command());
    EXPECT_EQ(1, flash->status_ready);
}

TEST_F(Exchange, PassesTheCodesOfFailedTransfersOn) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    char byte = 0;
    device.next_write_results = {LIBUSB_ERROR_PIPE, LIBUSB_ERROR_NO_DEVICE, LIBUSB_ERROR_TIMEOUT};
    EXPECT_EQ(8, flash->write_flash(&byte, 1));
    EXPECT_EQ(1, debugged("WriteFlash rc=8"));
    EXPECT_EQ(13, flash->write_flash(&byte, 1));
    EXPECT_EQ(8, send(wire::erase));
    EXPECT_EQ(1, debugged("Write failed on status of erase command, rc=8"));
    device.report_failure(LIBUSB_ERROR_IO);
    EXPECT_EQ(7, read(0));
    EXPECT_EQ(1, debugged("Sending Read Request to a002"));
    EXPECT_EQ(1, debugged("Reading data from a002 returned rc=7"));
    EXPECT_EQ(1, logged("Read Request to a002 failed, rc=7"));
    device.report_failure(LIBUSB_ERROR_PIPE);
    EXPECT_EQ(13, read(0));
}

TEST_F(Exchange, AResetCountsAsSentWhenTheDeviceDropsOff) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.next_write_results = {LIBUSB_ERROR_NO_DEVICE};
    EXPECT_EQ(0, flash->send_reset_command());
    EXPECT_EQ(1, logged("Reset sent, write failure expected!"));
}

TEST_F(Exchange, DataComesFromTheFirstFeatureReport) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.next_features = {{0, {1, 2, 3}}};
    char data[16] = {};
    EXPECT_EQ(0, flash->read_data(data, sizeof data));
    EXPECT_EQ(0, std::memcmp(data, "\x01\x02\x03\x00", 4));
    EXPECT_EQ(1, device.feature_requests());
    EXPECT_EQ(1, debugged("Sending Get Feature Report to a003"));
    EXPECT_EQ(1, debugged("Get Feature Report on a003 returned rc=0"));
    EXPECT_EQ(0, log.count("Report to 1603"));
}

TEST_F(Exchange, DataFallsBackToTheOtherFeatureReport) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.next_features = {{LIBUSB_ERROR_PIPE, {}}, {0, {9}}};
    char data[16] = {};
    EXPECT_EQ(0, flash->read_data(data, sizeof data));
    EXPECT_EQ(9, data[0]);
    EXPECT_EQ(2, device.feature_requests());
    EXPECT_EQ(1, logged("Get Feature Report a003 rc=12"));
    EXPECT_EQ(1, debugged("Sending Get Feature Report to 1603"));
    EXPECT_EQ(0, logged("Get Feature Report 1603 rc=0"));
}

TEST_F(Exchange, DataThatNeitherReportGivesFailsWithTheSecondCode) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.next_features = {{LIBUSB_ERROR_PIPE, {}}, {LIBUSB_ERROR_NO_DEVICE, {}}};
    char data[16] = {};
    EXPECT_EQ(13, flash->read_data(data, sizeof data));
    EXPECT_EQ(1, logged("Get Feature Report a003 rc=12"));
    EXPECT_EQ(1, logged("Get Feature Report 1603 rc=13"));
}

TEST_F(Exchange, ACommandWithoutTimeOutIsNotWaitedFor) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.other_answer = {};
    EXPECT_EQ(0, send(wire::erase, 0));
    EXPECT_EQ(1, device.count(wire::erase));
    EXPECT_EQ(1, debugged("send_command: write_flash returned - rc=0, last_status=00"));
}

TEST_F(Exchange, TellsOfACompletedCommand) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    EXPECT_EQ(0, send(wire::erase));
    EXPECT_EQ(1, debugged("Command completed"));
    EXPECT_EQ(1, debugged("send_command: read_flash returned - rc=0, status[0]=01 "
                          "last_status=00"));
    device.other_answer = {{0x00}};
    EXPECT_EQ(0, send(wire::erase));
    EXPECT_EQ(1, debugged("Command completed"));
}

TEST_F(Exchange, AFailedReadOfTheStatusIsFinal) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.other_answer = {};
    device.report_failure(LIBUSB_ERROR_OVERFLOW);
    EXPECT_EQ(7, send(wire::erase));
    EXPECT_EQ(1, debugged("Read failed on status of command, rc=7"));
    EXPECT_EQ(1, device.count(wire::erase));
}

TEST_F(Exchange, ARejectedCommandIsSentOnceMoreAfterHalfASecond) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.next_answers[wire::erase] = {{{0x80}}};
    EXPECT_EQ(0, send(wire::erase));
    EXPECT_EQ(2, device.count(wire::erase));
    EXPECT_EQ(1, sleeps.count(500));
    EXPECT_EQ(1, debugged("Command reject sending command trying one more time"));
    EXPECT_EQ(1, debugged("Command completed"));
}

TEST_F(Exchange, ASecondRejectEndsTheCommand) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.next_answers[wire::erase] = {{{0x80}}, {{0x81}}};
    EXPECT_EQ(2, send(wire::erase));
    EXPECT_EQ(2, device.count(wire::erase));
    EXPECT_EQ(1, logged("Bad status (81) on resend of command, stop flash operation"));
    // The new status counts for this line too.
    EXPECT_EQ(1, debugged("Command completed"));
}

TEST_F(Exchange, AnOperationErrorAfterARejectEndsTheCommand) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.next_answers[wire::erase] = {{{0x80}}, {{0x40}}};
    EXPECT_EQ(2, send(wire::erase));
    EXPECT_EQ(1, logged("Bad status (40) on resend of command, stop flash operation"));
}

TEST_F(Exchange, TheResendsOwnFailuresArePassedOn) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.next_answers[wire::erase] = {{{0x80}}, {}, {{0x80}}};
    device.next_write_results = {0, LIBUSB_ERROR_NO_DEVICE};
    EXPECT_EQ(13, send(wire::erase));
    device.on_command = [&device, count = 0](const Bytes&) mutable {
        if (++count == 2) {
            device.report_failure(LIBUSB_ERROR_IO);
        }
    };
    device.next_answers[wire::erase] = {{{0x80}}, {}};
    EXPECT_EQ(7, send(wire::erase));
    EXPECT_EQ(0, log.count("on resend of command"));
}

TEST_F(Exchange, ACompletedRejectIsForgottenWhenItsResendFails) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.next_answers[wire::erase] = {{{0x81}}};
    device.next_write_results = {0, LIBUSB_ERROR_NO_DEVICE};
    EXPECT_EQ(13, send(wire::erase));
    EXPECT_EQ(2, device.count(wire::erase));
    EXPECT_EQ(0, debugged("Command completed"));
}

TEST_F(Exchange, ARejectWhileGatheringInformationIsFinal) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.other_answer = {{0x81}};
    global_reading_information = 1;
    EXPECT_EQ(2, send(wire::erase));
    EXPECT_EQ(1, device.count(wire::erase));
    EXPECT_EQ(0, sleeps.count(500));
    EXPECT_EQ(1, debugged("Command reject sending command"));
    EXPECT_EQ(1, debugged("Command completed"));
}

TEST_F(Exchange, AnOperationErrorIsFinal) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.other_answer = {{0x40}};
    EXPECT_EQ(2, send(wire::erase));
    EXPECT_EQ(1, device.count(wire::erase));
    EXPECT_EQ(1, debugged("Operation error on sending command, stop flash operation"));
    // With the reject flag beside it, it is a reject.
    device.next_answers[wire::erase] = {{{0xC0}}, {{0x01}}};
    EXPECT_EQ(0, send(wire::erase));
}

TEST_F(Exchange, EraseIsTriedTwice) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    // Erasing is always tried again, information gathering or not.
    global_reading_information = 1;
    device.next_answers[wire::erase] = {{{0x80}}};
    EXPECT_EQ(0, flash->send_erase_command(slot));
    EXPECT_EQ(2, device.count(wire::erase));
    EXPECT_EQ(1, sleeps.count(500));
    EXPECT_EQ(1, logged("Command reject erasing image, trying one more time"));
}

TEST_F(Exchange, EraseFailsAfterASecondBadStatus) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    for (const unsigned char status : Bytes{0x80, 0x40}) {
        device.next_answers[wire::erase] = {{{0x80}}, {{status}}};
        EXPECT_EQ(2, flash->send_erase_command(slot));
    }
    EXPECT_EQ(4, device.count(wire::erase));
    EXPECT_EQ(1, logged("Bad status (80) on second erase of image, stop flash operation"));
    EXPECT_EQ(1, logged("Bad status (40) on second erase of image, stop flash operation"));
}

TEST_F(Exchange, EraseFailsOnAnOperationErrorAtOnce) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.other_answer = {{0x41}};
    EXPECT_EQ(2, flash->send_erase_command(slot));
    EXPECT_EQ(1, device.count(wire::erase));
    EXPECT_EQ(1, logged("Operation error on erase of image, stop flash operation"));
}

TEST_F(Exchange, EraseTellsOfFailedTransfersOnlyTheFirstTime) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.next_write_results = {LIBUSB_ERROR_PIPE};
    EXPECT_EQ(8, flash->send_erase_command(slot));
    EXPECT_EQ(1, logged("Write failed on status of erase command, rc=8"));
    device.next_answers[wire::erase] = {{}, {{0x80}}, {{0x80}}, {}};
    device.report_failure(LIBUSB_ERROR_IO);
    EXPECT_EQ(7, flash->send_erase_command(slot));
    EXPECT_EQ(1, logged("Read failed on status of erase command, rc=7"));
    device.next_write_results = {0, LIBUSB_ERROR_NO_DEVICE};
    EXPECT_EQ(13, flash->send_erase_command(slot));
    device.on_command = [&device, count = 0](const Bytes&) mutable {
        if (++count == 2) {
            device.report_failure(LIBUSB_ERROR_PIPE);
        }
    };
    EXPECT_EQ(13, flash->send_erase_command(slot));
    EXPECT_EQ(1, log.count("failed on status of erase command, rc=8"));
    EXPECT_EQ(1, log.count("Write failed on status"));
    EXPECT_EQ(1, log.count("Read failed on status"));
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
    const auto erase = [this] { EXPECT_NE(0, flash->send_erase_command(slot)); };
    for (const auto& failure : failures) {
        failure.prepare();
        EXPECT_EQ("", console_of(1, 0, erase));
        failure.prepare();
        EXPECT_EQ(failure.told, console_of(2, 1, erase));
    }
}

TEST_F(Exchange, FailuresOfSingleTransfersStayInTheLog) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.next_answers[wire::erase] = {{{0x80}}, {{0x80}}};
    EXPECT_EQ("", console_of(2, 1, [this] { EXPECT_EQ(2, send(wire::erase)); }));
    device.report_failure(LIBUSB_ERROR_IO);
    EXPECT_EQ("", console_of(2, 1, [this] { EXPECT_EQ(7, read(0)); }));
    char data[3] = {};
    EXPECT_EQ("", console_of(2, 1, [&] { EXPECT_EQ(12, flash->read_data(data, 3)); }));
    EXPECT_EQ(1, logged("Bad status (80) on resend of command, stop flash operation"));
    EXPECT_EQ(1, logged("Read Request to a002 failed, rc=7"));
    EXPECT_EQ(1, logged("Get Feature Report a003 rc=12"));
    EXPECT_EQ(1, logged("Get Feature Report 1603 rc=12"));
}

TEST_F(Exchange, EraseTakesItsOwnTimeOut) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    flash->use_thread_reading = 1;
    flash->ThreadTable[slot].device_closed = 0;
    erase_timeout = 45;
    EXPECT_EQ(7, flash->send_erase_command(slot));
    EXPECT_EQ(3, sleeps.count(15));
}

TEST_F(Exchange, QueriesTakeTheTimeOutForInformation) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    flash->use_thread_reading = 1;
    information_timeout = 45;
    flashEntry entry{};
    EXPECT_EQ(7, flash->get_device_info(&entry, slot));
    EXPECT_EQ(3, sleeps.count(15));
    EXPECT_EQ(7, flash->get_ec_level(&entry, slot));
    EXPECT_EQ(6, sleeps.count(15));
    EXPECT_EQ(6, flash->read_extended_component_list(&entry, slot));
    EXPECT_EQ(9, sleeps.count(15));
    EXPECT_EQ(6, flash->add_components_to_table(&entry, slot));
    EXPECT_EQ(12, sleeps.count(15));
    EXPECT_EQ(7, flash->add_component_x_version_info(&entry, 1, 1, slot));
    EXPECT_EQ(15, sleeps.count(15));
    EXPECT_EQ(0, flash->check_device_connection(slot));
    EXPECT_EQ(15, sleeps.count(15));
}

// The journal of transfers.

struct TraceEntry {
    uint32_t kind;
    Bytes payload;
};

class Journal : public Exchange {
  protected:
    Journal() { trace = std::make_unique<Trace>(name.c_str(), 2, 0); }
    ~Journal() override { trace.reset(); }

    /// The transfers that the trace file holds.
    std::vector<TraceEntry> transfers() {
        trace.reset();
        const std::string content = read_whole_file(name);
        std::vector<TraceEntry> found;
        for (size_t at = 0; at + sizeof(traceStruct3) <= content.size();) {
            traceStruct3 header{};
            std::memcpy(&header, content.data() + at, sizeof header);
            at += sizeof header;
            if (header.minorCode >= trace_kind::report_written &&
                header.minorCode <= trace_kind::feature_read) {
                const std::string payload = content.substr(at, header.length);
                found.push_back({header.minorCode, {payload.begin(), payload.end()}});
            }
            // The version record is a header alone.
            at += header.minorCode == trace_kind::version ? 0 : header.length;
        }
        return found;
    }

    TemporaryDirectory directory;
    std::string name = directory.path("trace");
};

TEST_F(Journal, HoldsEachTransferBehindProductAndUsage) {
    FlashPeripheral& device = bus.add(0x41A3);
    open_directly(device, slot);
    device.next_features = {{0, {1, 2}}, {LIBUSB_ERROR_PIPE, {}}, {0, {3}}};
    EXPECT_EQ(0, send(wire::device_information_query));
    char data[3] = {};
    EXPECT_EQ(0, flash->read_data(data, 3));
    EXPECT_EQ(0, flash->read_data(data, 3));

    const std::vector<TraceEntry> found = transfers();
    ASSERT_EQ(4U, found.size());
    EXPECT_EQ(405U, found[0].kind);
    EXPECT_EQ((Bytes{0x41, 0xA3, 0xA0, 0x01, 0, 0, 0, 0, 0x03, 0, 0, 0, 0x01}), found[0].payload);
    EXPECT_EQ(406U, found[1].kind);
    EXPECT_EQ((Bytes{0x41, 0xA3, 0xA0, 0x02, 0, 0, 0, 0, 0x01, 0, 0, 0, 0, 0, 0, 0}),
              found[1].payload);
    EXPECT_EQ(407U, found[2].kind);
    EXPECT_EQ((Bytes{0x41, 0xA3, 0xA0, 0x03, 0, 0, 0, 0, 1, 2, 0}), found[2].payload);
    EXPECT_EQ(407U, found[3].kind);
    // The usage that answered.
    EXPECT_EQ((Bytes{0x41, 0xA3, 0x16, 0x03, 0, 0, 0, 0, 3, 2, 0}), found[3].payload);
}

TEST_F(Journal, HoldsWhatWasWrittenEvenWhenThatFailed) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.next_write_results = {LIBUSB_ERROR_PIPE};
    EXPECT_EQ(8, send(wire::erase));
    EXPECT_EQ(1U, transfers().size());
}

TEST_F(Journal, NeedsNoMemoryForItsRecords) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    Bytes command = wire::erase;
    auto* const bytes = reinterpret_cast<char*>(command.data());
    const auto size = static_cast<unsigned int>(command.size());
    OutputLevel = 0;
    fail_nothrow_new(true);
    const int rc = flash->write_flash(bytes, size);
    fail_nothrow_new(false);
    EXPECT_EQ(0, rc);
    EXPECT_EQ(1, device.count(wire::erase));
    EXPECT_EQ(1U, transfers().size());
}

TEST_F(Journal, HoldsNoFailedReads) {
    FlashPeripheral& device = bus.add(0x4123);
    open_directly(device, slot);
    device.report_failure(LIBUSB_ERROR_IO);
    EXPECT_EQ(7, read(0));
    char data[3] = {};
    EXPECT_EQ(12, flash->read_data(data, 3));
    EXPECT_TRUE(transfers().empty());
}

// The image transfer.

class Image : public Exchange {
  protected:
    Image() { open_directly(device, slot); }

    int send_file(const FirmwareBytes& file) {
        const FileHandle stream(fopen(directory.write("image.dat", file).c_str(), "rb"));
        return flash->send_firmware_file_data(stream.get(), slot);
    }

    TemporaryDirectory directory;
    FlashPeripheral& device = bus.add(0x4123);
};

FirmwareBytes two_records() {
    return FirmwareBytes("41230102")
        .record(0x12, 0x3456, {0xAA, 0xBB})
        .record(0x10, 0x0000, {0x01})
        .end(0xC0, 0xC1);
}

TEST_F(Image, IsSentRecordByRecordWithItsChecksum) {
    flash->old_percentage = 44;
    EXPECT_EQ(0, send_file(FirmwareBytes("41230102")
                               .record(0x12, 0x3456, {0xAA, 0xBB})
                               .record(0x10, 0x0000, {0x01})
                               .end(0xC0, 0xC1)));
    EXPECT_EQ((std::vector<Bytes>{{0x08, 0x00, 0x02, 0x00, 0x02, 0x12, 0x34, 0x56, 0xAA, 0xBB},
                                  {0x07, 0x00, 0x02, 0x00, 0x01, 0x10, 0x00, 0x00, 0x01},
                                  {0x05, 0x00, 0x02, 0x00, 0x00, 0xC0, 0xC1}}),
              device.commands());
    EXPECT_EQ(0, flash->old_percentage);
    EXPECT_EQ(1, logged("Main part of firmware update done, now sending checksum"));
    EXPECT_EQ(1, logged("Checksums written"));
}

TEST_F(Image, TheLongestRecordsCountTakesTwoBytes) {
    const std::vector<std::uint8_t> payload(255, 0x5A);
    EXPECT_EQ(0, send_file(FirmwareBytes("41230102").record(0x10, 1, payload).end()));
    const Bytes sent = device.commands().at(0);
    ASSERT_EQ(263U, sent.size());
    EXPECT_EQ((Bytes{0x05, 0x01, 0x02, 0x00, 0xFF, 0x10, 0x00, 0x01, 0x5A}),
              Bytes(sent.begin(), sent.begin() + 9));
    EXPECT_EQ(0x5A, sent.back());
}

TEST_F(Image, WithoutAStreamIsABadFile) {
    flash->old_percentage = 44;
    EXPECT_EQ(1, flash->send_firmware_file_data(nullptr, slot));
    EXPECT_EQ(0, flash->old_percentage);
    EXPECT_TRUE(device.commands().empty());
}

TEST_F(Image, ThatEndsWithoutAZeroByteIsCorrupted) {
    EXPECT_EQ(14, send_file(FirmwareBytes("41230102").record(0x10, 1, {1})));
    EXPECT_EQ(1U, device.commands().size());
    EXPECT_EQ(1, logged("File corrupted, stopping update"));
    EXPECT_EQ(0, log.count("now sending checksum"));
}

TEST_F(Image, ThatIsNothingButAHeaderIsCorrupted) {
    EXPECT_EQ(14, send_file(FirmwareBytes("41230102")));
    EXPECT_EQ(14, send_file(FirmwareBytes("")));
    EXPECT_TRUE(device.commands().empty());
}

TEST_F(Image, ThatEndsRightAfterTheZeroByteIsBad) {
    EXPECT_EQ(1, send_file(FirmwareBytes("41230102").record(0x10, 1, {1}).raw({0})));
    EXPECT_EQ(1, send_file(FirmwareBytes("41230102").record(0x10, 1, {1}).raw({0, 0xC0})));
    EXPECT_EQ(2U, device.commands().size());
    EXPECT_EQ(2, logged("Firmware update file apparently bad"));
}

TEST_F(Image, ThatEndsInsideARecordIsCorruptedAndThatRecordIsNotSent) {
    EXPECT_EQ(
        14,
        send_file(FirmwareBytes("41230102").record(0x10, 1, {1}).lying_record(9, 0x10, 2, {1, 2})));
    EXPECT_EQ(1U, device.commands().size());
    EXPECT_EQ(1, logged("File corrupted, stopping update"));
}

TEST_F(Image, BadFilesAreToldOnTheConsole) {
    const std::string corrupted =
        console_of(1, 0, [this] { send_file(FirmwareBytes("41230102")); });
    EXPECT_EQ("\nFile corrupted, stopping update\n\n", corrupted);
    const std::string bad =
        console_of(1, 0, [this] { send_file(FirmwareBytes("41230102").raw({0})); });
    EXPECT_EQ("\nFirmware update file apparently bad\n", bad);
    EXPECT_EQ("", console_of(0, 0, [this] { send_file(FirmwareBytes("41230102")); }));
}

TEST_F(Image, GoesOnWhateverAGoodStatusSays) {
    for (const unsigned char status : Bytes{0x00, 0x01, 0x3F}) {
        device.other_answer = {{status}};
        EXPECT_EQ(0, send_file(FirmwareBytes("41230102").record(0x10, 1, {1}).end())) << +status;
    }
}

TEST_F(Image, StopsAtABadStatus) {
    for (const unsigned char status : Bytes{0xC0, 0x80, 0x40, 0x41}) {
        const size_t before = device.commands().size();
        device.other_answer = {{status}};
        EXPECT_EQ(2, send_file(two_records())) << +status;
        EXPECT_EQ(before + 1, device.commands().size());
    }
    EXPECT_EQ(1, logged("Bad status (c0) on write of record, stopping firmware update"));
    EXPECT_EQ(1, logged("Bad status (41) on write of record, stopping firmware update"));
}

TEST_F(Image, StopsAtAFailedTransferWithItsCode) {
    device.next_write_results = {LIBUSB_ERROR_NO_DEVICE};
    EXPECT_EQ(13, send_file(two_records()));
    EXPECT_EQ(1U, device.commands().size());
    device.other_answer = {};
    device.report_failure(LIBUSB_ERROR_IO);
    EXPECT_EQ(7, send_file(two_records()));
    EXPECT_EQ(2U, device.commands().size());
    EXPECT_EQ(1, logged("Read failed on status of command, rc=7"));
}

const Bytes checksum_message{0x05, 0x00, 0x02, 0x00, 0x00, 0xC0, 0xC1};

TEST_F(Image, FailsWhenTheChecksumIsRefused) {
    device.answers[checksum_message] = {{0x80}};
    EXPECT_EQ(2, send_file(two_records()));
    EXPECT_EQ(1, logged("Bad status (80) on write of checksum"));
    device.answers[checksum_message] = {{0x40}};
    EXPECT_EQ(2, send_file(two_records()));
    EXPECT_EQ(1, logged("Bad status (40) on write of checksum"));
    EXPECT_EQ(0, log.count("Checksums written"));
}

TEST_F(Image, FailsWhenTheChecksumsStatusCantBeRead) {
    device.answers[checksum_message] = {};
    device.on_command = [this](const Bytes& command) {
        if (command == checksum_message) {
            device.report_failure(LIBUSB_ERROR_IO);
        }
    };
    EXPECT_EQ(2, send_file(two_records()));
    EXPECT_EQ(1, logged("Read of checksm write status failed"));
}

TEST_F(Image, ItsBadAnswersAreToldWhenVerbose) {
    const auto failing = [this] { EXPECT_EQ(2, send_file(two_records())); };
    const std::string records_sent = "\nMain part of firmware update done, now sending checksum\n";
    device.answers[checksum_message] = {{0xC0}};
    EXPECT_EQ("\n", console_of(1, 0, failing));
    EXPECT_EQ(records_sent + "Bad status (c0) on write of checksum\n", console_of(2, 1, failing));
    device.answers[checksum_message] = {};
    device.on_command = [this](const Bytes& command) {
        if (command == checksum_message) {
            device.report_failure(LIBUSB_ERROR_IO);
        }
    };
    EXPECT_EQ("\n", console_of(1, 0, failing));
    EXPECT_EQ(records_sent + "Read of checksm write status failed\n", console_of(2, 1, failing));
    device.other_answer = {{0x40}};
    EXPECT_EQ("\n", console_of(1, 0, failing));
    EXPECT_EQ("Bad status (40) on write of record, stopping firmware update\n\n",
              console_of(2, 1, failing));
}

TEST_F(Image, PassesAFailedWriteOfTheChecksumOn) {
    device.next_write_results = {0, 0, LIBUSB_ERROR_NO_DEVICE};
    EXPECT_EQ(13, send_file(two_records()));
    EXPECT_EQ(0, log.count("checksm"));
}

TEST_F(Image, TakesTheTimeOutsOfRecordsAndChecksum) {
    flash->use_thread_reading = 1;
    flash->ThreadTable[slot].device_closed = 0;
    command_timeout = 45;
    EXPECT_EQ(7, send_file(two_records()));
    EXPECT_EQ(3, sleeps.count(15));
    checksum_timeout = 75;
    EXPECT_EQ(2, send_file(FirmwareBytes("41230102").end()));
    EXPECT_EQ(8, sleeps.count(15));
}

TEST_F(Image, ForgetsEarlierReportsBeforeEachMessage) {
    flash->use_thread_reading = 1;
    flash->ThreadTable[slot].device_closed = 0;
    flash->status_ready = 1;
    int messages = 0;
    device.on_command = [this, &messages](const Bytes&) {
        ++messages;
        EXPECT_EQ(0, flash->status_ready);
        flash->last_status[0] = 0x01;
        flash->status_ready = 1;
    };
    EXPECT_EQ(0, send_file(two_records()));
    EXPECT_EQ(3, messages);
}

TEST_F(Image, RecordsAreRewrittenForAnotherComponent) {
    comp_update_id = 3;
    EXPECT_EQ(0, send_file(FirmwareBytes("41230102")
                               .record(0x12, 0x3456, {0xAA})
                               .record(0xFF, 0x0001, {0x5A, 0x77})
                               .record(0xFF, 0x0102, {0x5A})
                               .end()));
    const std::vector<Bytes> sent = device.commands();
    ASSERT_EQ(4U, sent.size());
    EXPECT_EQ((Bytes{0x07, 0, 2, 0, 1, 0x32, 0x34, 0x56, 0xAA}), sent[0]);
    // A record about the whole file: its fourth byte behind the length names the component.
    EXPECT_EQ((Bytes{0x08, 0, 2, 0, 2, 0xFF, 0x00, 0x01, 0x53, 0x77}), sent[1]);
    EXPECT_EQ((Bytes{0x07, 0, 2, 0, 1, 0x3F, 0x01, 0x02, 0x5A}), sent[2]);
    EXPECT_EQ((Bytes{0x05, 0, 2, 0, 0, 0xAB, 0xCD}), sent[3]);
}

TEST_F(Image, RecordsStayAsTheyAreForComponentZero) {
    for (const int component : {-1, 0}) {
        comp_update_id = component;
        EXPECT_EQ(0, send_file(FirmwareBytes("41230102").record(0x12, 0x3456, {0xAA}).end()));
    }
    EXPECT_EQ(device.commands().at(0), device.commands().at(2));
    EXPECT_EQ(0x12, device.commands().at(0).at(5));
}

TEST_F(Image, ShowsTheOldProgress) {
    old_progress = 1;
    const auto action = [this] {
        EXPECT_EQ(
            0,
            send_file(FirmwareBytes("41230102").record(0x10, 0, {1}).record(0x10, 0, {1}).end()));
    };
    EXPECT_EQ("rwrw\n", console_of(1, 0, action));
    EXPECT_EQ("", console_of(0, 0, action));
}

TEST_F(Image, ShowsThePercentageOfItsRecords) {
    flash->send_count = 4;
    const auto action = [this] {
        EXPECT_EQ(0, send_file(FirmwareBytes("41230102")
                                   .record(0x10, 0, {1})
                                   .record(0x10, 0, {1})
                                   .record(0x10, 0, {1})
                                   .record(0x10, 0, {1})
                                   .end()));
    };
    EXPECT_EQ(". %50  complete\n. %100 complete\n\n", console_of(1, 0, action));
    EXPECT_EQ("", console_of(0, 0, action));
}

TEST_F(Image, TellsItsStagesOnTheConsoleWhenVerbose) {
    const auto good = [this] { EXPECT_EQ(0, send_file(FirmwareBytes("41230102").end())); };
    EXPECT_EQ("\n", console_of(1, 0, good));
    EXPECT_EQ("\nMain part of firmware update done, now sending checksum\nChecksums written\n",
              console_of(2, 1, good));
}

}  // namespace
