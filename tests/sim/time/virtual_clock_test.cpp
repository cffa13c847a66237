// What a program sees of clocks, threads and waits in virtual time.
#include "support/workspace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;

constexpr int deadlock = 116;
constexpr int livelock = 117;
constexpr int refused = 118;

/// Programs of the same text: with the plain calls, and with those for 64-bit time where they have
/// other names.
class VirtualTime : public testing::TestWithParam<const char*> {
  protected:
    Outcome query(const std::string& command, const std::string& settings = "") const {
        return run("timeout 60 env LD_PRELOAD=" ZELFWSIM_TIME " " + settings + " " + GetParam() +
                   " " + command);
    }

    const Workspace workspace_;
};

INSTANTIATE_TEST_SUITE_P(Programs, VirtualTime, testing::Values(ZELFWSIM_TIME_QUERIES),
                         [](const auto& each) { return "Query" + std::to_string(each.index); });

TEST_P(VirtualTime, ShowsOneInstantOnAllClocks) {
    EXPECT_EQ(query("clocks").output,
              "time 1767225600\ngettimeofday 1767225600\nftime 1767225600\n"
              "realtime 1767225600\nmonotonic 1767225600\n");
}

TEST_P(VirtualTime, BeginsWhenItIsTold) {
    EXPECT_EQ(query("clocks", "ZELFWSIM_TIME_EPOCH=1000000000").output,
              "time 1000000000\ngettimeofday 1000000000\nftime 1000000000\n"
              "realtime 1000000000\nmonotonic 1767225600\n");
}

TEST_P(VirtualTime, PassesByWhatIsWaitedFor) {
    const auto result = query("waits");
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.output,
              "select 0 1500\npoll 0 2000\nnanosleep 0 3000\nusleep 0 4\nsleep 0 5000\n"
              "clock_nanosleep 0 6000\ntimedlock 1 7000\ntimedwait 1 8000\nclockwait 1 9000\n"
              "timedjoin 1 10000\njoin 0 9999\n");
}

TEST_P(VirtualTime, GoesOnInTheNextProcessOnTheSameState) {
    const std::string state = "ZELFWSIM_STATE=" + workspace_.state();
    query("waits", state);
    EXPECT_THAT(query("clocks", state).output, HasSubstr("monotonic 1767225661\n"));
    EXPECT_THAT(query("clocks").output, HasSubstr("monotonic 1767225600\n"));
}

TEST_P(VirtualTime, StepsTheWallClockAlone) {
    const std::string settings = "ZELFWSIM_TIME_STEP=-7200@0";
    EXPECT_THAT(query("clocks", settings).output,
                AllOf(HasSubstr("realtime 1767218400\n"), HasSubstr("monotonic 1767225600\n")));
    EXPECT_THAT(query("waits", "ZELFWSIM_TIME_STEP=3600@1000").output,
                HasSubstr("select 0 1500\npoll 0 2000\n"));
    // Just one second into the wait until an instant of the wall clock.
    EXPECT_THAT(query("waits", "ZELFWSIM_TIME_STEP=3600@12505").output,
                HasSubstr("clock_nanosleep 0 1000\n"));
    EXPECT_THAT(query("waits", "ZELFWSIM_TIME_STEP=-300@12505").output,
                HasSubstr("clock_nanosleep 0 306000\n"));
}

TEST_P(VirtualTime, GivesThePlainOrderWithoutASeed) {
    EXPECT_EQ(query("order").output, "aaaaaaaaaabbbbbbbbbbcccccccccc\n");
}

TEST_P(VirtualTime, GivesTheSameOrderForTheSameSeedAndOthersForOthers) {
    std::set<std::string> orders;
    for (int seed = 1; seed <= 10; ++seed) {
        const std::string settings = "ZELFWSIM_TIME_SEED=" + std::to_string(seed);
        const std::string order = query("order", settings).output;
        EXPECT_EQ(query("order", settings).output, order);
        orders.insert(order);
    }
    EXPECT_GT(orders.size(), 8U);
}

TEST_P(VirtualTime, WakesWhoWaitsForAConditionUnderAnySeed) {
    for (int seed = 0; seed < 20; ++seed) {
        const auto result = query("exchange", "ZELFWSIM_TIME_SEED=" + std::to_string(seed));
        EXPECT_EQ(result.output, "20\n") << seed;
        EXPECT_EQ(result.code, 0) << seed;
    }
}

TEST_P(VirtualTime, LetsASignalEndASleep) {
    EXPECT_EQ(query("signal").output, "left 8 handled 1\nselect 1 1500\n");
}

TEST_P(VirtualTime, GivesTheProcessTheSameNumber) {
    EXPECT_THAT(query("process").output, HasSubstr("1000 0x"));
}

TEST_P(VirtualTime, TellsADeadlockWithThePlaceOfEachThread) {
    const auto result = query("lock-twice");
    EXPECT_EQ(result.code, deadlock);
    EXPECT_THAT(
        result.output,
        AllOf(
            HasSubstr("zelfwsim: deadlock after 0.020"),
            ContainsRegex("thread 1: pthread_mutex_lock of 0x[0-9a-f]+, called from time_query"),
            ContainsRegex("thread 2: pthread_mutex_lock of 0x[0-9a-f]+, called from time_query.*, "
                          "started by thread 1 from ")));
}

TEST_P(VirtualTime, TellsALivelockWithTheLastCalls) {
    const auto result = query("call-on-and-on", "ZELFWSIM_TIME_STEPS=5000");
    EXPECT_EQ(result.code, livelock);
    EXPECT_THAT(result.output,
                AllOf(HasSubstr(": 5000 calls and nobody waited; the last calls:\n"),
                      ContainsRegex("thread 1: sched_yield, called from time_query")));
}

TEST_P(VirtualTime, EndsARunThatTakesTooLong) {
    const auto result = query("sleep-on-and-on", "ZELFWSIM_TIME_LIMIT=100");
    EXPECT_EQ(result.code, livelock);
    EXPECT_THAT(result.output, HasSubstr("livelock after 101.0"));
}

TEST_P(VirtualTime, FindsAThreadThatComputesOnAndOn) {
    const auto result = query("compute-on-and-on", "ZELFWSIM_TIME_BUSY=1");
    EXPECT_EQ(result.code, livelock);
    EXPECT_THAT(result.output, HasSubstr("no call for 1 seconds of processor time"));
}

TEST_P(VirtualTime, RefusesWhatItDoesNotKnowByName) {
    auto result = query("semaphore");
    EXPECT_EQ(result.code, refused);
    EXPECT_THAT(result.output,
                HasSubstr("zelfwsim: virtual time does not know sem_wait, called from time_query"));
    result = query("fork");
    EXPECT_EQ(result.code, refused);
    EXPECT_THAT(result.output, HasSubstr("does not know fork, called from"));
}

TEST_P(VirtualTime, AsksAnOutputAndRefusesToWaitForADescriptor) {
    auto result = query("select-descriptor");
    EXPECT_EQ(result.code, refused);
    EXPECT_THAT(result.output,
                ContainsRegex("does not know select of descriptor [0-9]+, called from"));
    result = query("poll-descriptor");
    EXPECT_EQ(result.code, refused);
    EXPECT_THAT(result.output,
                AllOf(HasSubstr("1 1\n"),
                      ContainsRegex("does not know poll of descriptor [0-9]+, called from")));
}

TEST_P(VirtualTime, RefusesASettingThatItCannotRead) {
    for (const char* setting : {"ZELFWSIM_TIME_SEED=x", "ZELFWSIM_TIME_LIMIT=0",
                                "ZELFWSIM_TIME_STEP=5", "ZELFWSIM_TIME_EPOCH=-1"}) {
        const auto result = query("clocks", setting);
        EXPECT_EQ(result.code, refused) << setting;
        EXPECT_THAT(result.output, HasSubstr(std::string("zelfwsim: ") + setting)) << setting;
    }
}

}  // namespace
