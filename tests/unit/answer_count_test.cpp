#include "session/answer_count.h"

#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <string>

namespace {

class AnswerCountTest : public testing::Test {
  protected:
    /// Messages that are answered once each.
    void exchange(int times) {
        for (int i = 0; i < times; ++i) {
            count.message_sent();
            count.report_taken();
        }
    }
    std::string doubts() {
        count.tell_doubts();
        return log.text();
    }

    LogCapture log;
    AnswerCount count;
};

}  // namespace

TEST_F(AnswerCountTest, DoubtsNothingWhenEachMessageHasItsAnswer) {
    count.start();
    exchange(7);
    EXPECT_EQ(doubts(), "");
}

TEST_F(AnswerCountTest, DoubtsNothingWhileAnAnswerIsToCome) {
    count.start();
    exchange(7);
    count.message_sent();
    EXPECT_EQ(doubts(), "");
}

TEST_F(AnswerCountTest, CountsWhatCouldNotBeRead) {
    count.start();
    exchange(1);
    count.message_sent();
    count.read_failed();
    EXPECT_EQ(doubts(), "The result is uncertain: 1 status report could not be read\n");
    count.read_failed();
    EXPECT_NE(doubts().find("uncertain: 2 status reports could not be read\n"), std::string::npos);
}

TEST_F(AnswerCountTest, CountsWhatCameTooMany) {
    count.start();
    exchange(2);
    count.report_taken();
    EXPECT_EQ(doubts(), "The result is uncertain: 1 status report more than messages sent\n");
    count.report_taken();
    EXPECT_NE(doubts().find("uncertain: 2 status reports more than messages sent\n"),
              std::string::npos);
}

TEST_F(AnswerCountTest, AMissingAnswerDoesNotMakeUpForOneTooMany) {
    count.start();
    exchange(1);
    count.report_taken();
    count.message_sent();
    exchange(3);
    EXPECT_EQ(doubts(), "The result is uncertain: 1 status report more than messages sent\n");
}

TEST_F(AnswerCountTest, WhatCameBeforeTheFirstMessageDoesNotCount) {
    count.report_taken();
    count.start();
    count.report_taken();
    count.read_failed();
    exchange(3);
    EXPECT_EQ(doubts(), "");
}

TEST_F(AnswerCountTest, EachImageBeginsAnew) {
    count.start();
    exchange(1);
    count.report_taken();
    count.read_failed();
    count.start();
    exchange(3);
    EXPECT_EQ(doubts(), "");
}
