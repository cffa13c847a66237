#include "journal/output.h"
#include "session/zelflash.h"
#include "support/exchange.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <vector>

namespace {

/// Waiting for the reader: no reader runs, the test sets the flags itself.
class Waiting : public Exchange {
  protected:
    Waiting() {
        flash->use_thread_reading = 1;
        flash->ThreadTable[slot].device_closed = 0;
    }
    SleepDouble instant{0};
};

}  // namespace

TEST_F(Waiting, PollsSixTimesInAHundredMilliseconds) {
    EXPECT_EQ(wait(100), 7);
    EXPECT_EQ(instant.slept(), std::vector<long>(6, 15));
    EXPECT_EQ(debugged("wait_for_message(timeout=100, length=8), loop_count=6, sleep_time=15, "
                       "status_ready=0, device_closed=0"),
              1);
    EXPECT_EQ(debugged("wait_for_message: returning rc=7 status_ready=0 device_closed=0 "
                       "data_length=0"),
              1);
}

TEST_F(Waiting, GivesUpAtOnceBelowThePollInterval) {
    EXPECT_EQ(wait(10), 7);
    EXPECT_EQ(wait(14), 7);
    EXPECT_TRUE(instant.slept().empty());
    EXPECT_EQ(wait(15), 7);
    EXPECT_EQ(instant.slept().size(), 1U);
}

TEST_F(Waiting, TakesAReportThatIsThereWhateverTheTimeOut) {
    std::memcpy(flash->last_status, "\x01\x02\x03\x04\x05\x06\x07\x08", 8);
    flash->status_ready = 1;
    EXPECT_EQ(wait(10), 0);
    EXPECT_EQ(answer_bytes(), (Bytes{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(flash->status_ready, 0);
    EXPECT_TRUE(instant.slept().empty());
    EXPECT_EQ(debugged("status_ready=1 copying 8 bytes to buffer (01.02.03.04.05.06.07.08) "
                       "length=8, sizeof(status)=8"),
              1);
    EXPECT_EQ(debugged("wait_for_message: returning rc=0 status_ready=1 device_closed=0 "
                       "data_length=8"),
              1);
}

TEST_F(Waiting, EndsAsSoonAsAReportComes) {
    instant.after_sleep = [this](int count) {
        if (count == 3) {
            flash->last_status[0] = 0x01;
            flash->status_ready = 1;
        }
    };
    EXPECT_EQ(wait(5000), 0);
    EXPECT_EQ(instant.slept().size(), 3U);
    EXPECT_EQ(answer[0], 0x01);
    EXPECT_EQ(flash->status_ready, 0);
}

TEST_F(Waiting, TakesAReportThatComesInTheLastPoll) {
    instant.after_sleep = [this](int count) { flash->status_ready = count == 6 ? 1 : 0; };
    EXPECT_EQ(wait(100), 0);
}

TEST_F(Waiting, CopiesNoMoreThanTheBufferOrTheReportHolds) {
    std::memset(flash->last_status, 0x5A, sizeof flash->last_status);
    flash->status_ready = 1;
    EXPECT_EQ(wait(100, 3), 0);
    EXPECT_EQ(answer_bytes(), (Bytes{0x5A, 0x5A, 0x5A, 0, 0, 0, 0, 0}));
    std::array<char, 16> large{};
    flash->status_ready = 1;
    EXPECT_EQ(flash->wait_for_message(100, large.data(), 16, slot), 0);
    EXPECT_EQ(large[7], 0x5A);
    EXPECT_EQ(large[8], 0);
}

TEST_F(Waiting, RaisesAShortPollIntervalForGood) {
    flash->sleep_time = 5;
    EXPECT_EQ(wait(30), 7);
    EXPECT_EQ(flash->sleep_time, 15);
    EXPECT_EQ(instant.slept(), (std::vector<long>{15, 15}));
}

TEST_F(Waiting, KeepsALongerPollInterval) {
    flash->sleep_time = 40;
    EXPECT_EQ(wait(100), 7);
    EXPECT_EQ(flash->sleep_time, 40);
    EXPECT_EQ(instant.slept(), (std::vector<long>{40, 40}));
}

TEST_F(Waiting, AnyOtherMarkOfAReportIsATimeOut) {
    flash->status_ready = 2;
    flash->last_status[0] = 0x01;
    EXPECT_EQ(wait(100), 7);
    EXPECT_EQ(flash->status_ready, 0);
    EXPECT_EQ(answer[0], 0);
    instant.after_sleep = [this](int) { flash->status_ready = -1; };
    EXPECT_EQ(wait(100), 7);
    EXPECT_EQ(instant.slept().size(), 1U);
}

TEST_F(Waiting, GivesUpOnAClosedDevice) {
    flash->ThreadTable[slot].device_closed = 1;
    EXPECT_EQ(wait(5000), 13);
    EXPECT_TRUE(instant.slept().empty());
    EXPECT_EQ(debugged("wait_for_message: returning rc=13 status_ready=0 device_closed=1 "
                       "data_length=0"),
              1);
}

TEST_F(Waiting, NoticesThatTheDeviceIsClosedMeanwhile) {
    instant.after_sleep = [this](int count) {
        flash->ThreadTable[slot].device_closed = count == 2 ? 1 : 0;
    };
    EXPECT_EQ(wait(5000), 13);
    EXPECT_EQ(instant.slept().size(), 2U);
}

TEST_F(Waiting, AClosedDeviceMattersOnlyWhileItIsWaitedFor) {
    flash->ThreadTable[slot].device_closed = 1;
    EXPECT_EQ(wait(10), 7);
    flash->status_ready = 1;
    EXPECT_EQ(wait(100), 0);
}

TEST_F(Waiting, TellsOfEachSleepAboveLevelThree) {
    EXPECT_EQ(wait(100), 7);
    EXPECT_EQ(log.count("sleeping while waiting"), 0);
    OutputLevel = 4;
    EXPECT_EQ(wait(100), 7);
    EXPECT_EQ(logged("4:sleeping while waiting (status_ready=0, device_closed=0)"), 6);
}

TEST_F(Waiting, ReadingWaitsForTheReaderWhenOneRuns) {
    flash->status_ready = 1;
    flash->last_status[0] = 0x09;
    EXPECT_EQ(read(1), 0);
    EXPECT_EQ(answer[0], 0x09);
    EXPECT_EQ(read(100), 7);
    EXPECT_EQ(instant.slept().size(), 6U);
}

TEST_F(Waiting, SecondsAndMillisecondsAreSlept) {
    EXPECT_EQ(flash->chSleep(999), 0);
    EXPECT_EQ(flash->chSleep(4000), 0);
    EXPECT_EQ(flash->chSleep(2015), 0);
    EXPECT_EQ(instant.slept(), (std::vector<long>{999, 4000, 2015}));
}
