#include "journal/zelfwtrace.h"

#include "support/child_process.h"
#include "support/clock_double.h"
#include "support/private_tmp.h"
#include "support/sleep_double.h"
#include "support/temporary_directory.h"
#include "support/trace_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr std::uint32_t version_kind = 501;
constexpr std::uint32_t text_kind = 42;

const unsigned char* bytes_of(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

/// Each test has a trace file "t" in a directory of its own.
class TraceFile : public testing::Test {
  protected:
    std::string name(const std::string& suffix = "") const { return directory_.path("t" + suffix); }
    std::string content(const std::string& suffix = "") const { return read_file(name(suffix)); }
    bool exists(const std::string& suffix) const { return std::filesystem::exists(name(suffix)); }
    std::vector<TraceRecord> records() const { return read_trace(name()); }

    TemporaryDirectory directory_;
};

}  // namespace

TEST_F(TraceFile, StartsWithAVersionRecordOfThirtyTwoBytes) {
    const auto before = static_cast<std::uint32_t>(std::time(nullptr));
    const Trace file(name().c_str(), 0, 3);
    ASSERT_EQ(content().size(), 32U);
    const std::vector<TraceRecord> found = records();
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].length, 16U);
    EXPECT_EQ(found[0].kind, version_kind);
    EXPECT_EQ(found[0].clock, 0.0);
    EXPECT_EQ(found[0].thread, static_cast<std::uint32_t>(pthread_self()));
    EXPECT_EQ(found[0].process, static_cast<std::uint32_t>(getpid()));
    EXPECT_GE(found[0].seconds, before);
    EXPECT_LE(found[0].seconds, static_cast<std::uint32_t>(std::time(nullptr)));
    EXPECT_EQ(found[0].component, 0);
    EXPECT_EQ(found[0].reserved, 0);
    EXPECT_LT(found[0].milliseconds, 1000);
}

TEST_F(TraceFile, ThatCannotBeOpenedTakesNothingInASignalHandler) {
    std::filesystem::create_directory(name());
    const Trace file(name().c_str(), 0, 3);
    file.write_text_in_handler("a fault\n");
    EXPECT_TRUE(std::filesystem::is_empty(name()));
}

TEST_F(TraceFile, KeepsARecordsBytes) {
    Trace file(name().c_str(), 0, 3);
    const std::string report("\x3C\x02\xA0\x01\0\0\0\0\xFF\0\r\n", 12);
    const auto before = static_cast<std::uint32_t>(std::time(nullptr));
    file.WriteTraceData(405, bytes_of(report), report.size());
    file.WriteTraceData(0xFFFFFFFF, bytes_of(report), 0);
    const std::vector<TraceRecord> found = records();
    ASSERT_EQ(found.size(), 3U);
    EXPECT_EQ(found[1].length, 12U);
    EXPECT_EQ(found[1].kind, 405U);
    EXPECT_EQ(found[1].payload, report);
    EXPECT_EQ(found[1].thread, static_cast<std::uint32_t>(pthread_self()));
    EXPECT_EQ(found[1].process, static_cast<std::uint32_t>(getpid()));
    EXPECT_GE(found[1].seconds, before);
    EXPECT_LE(found[1].seconds, static_cast<std::uint32_t>(std::time(nullptr)));
    EXPECT_EQ(found[1].component, 0x65);
    EXPECT_EQ(found[1].reserved, 0);
    EXPECT_LT(found[1].milliseconds, 1000);
    EXPECT_EQ(found[2].kind, 0xFFFFFFFFU);
    EXPECT_EQ(found[2].length, 0U);
}

TEST_F(TraceFile, LaysItsHeaderOutLittleEndian) {
    clock_double_stands_at(1000000);
    Trace file(name().c_str(), 0, 3);
    clock_double_stands_at(1000002);
    file.WriteTraceData(0x04030201, bytes_of("abc"), 3);
    const std::string record = content().substr(32);
    ASSERT_EQ(record.size(), 35U);
    EXPECT_EQ(record.substr(0, 8), std::string("\x03\0\0\0\x01\x02\x03\x04", 8));
    // 2.0 as IEEE 754 has it.
    EXPECT_EQ(record.substr(8, 8), std::string("\0\0\0\0\0\0\0\x40", 8));
    EXPECT_EQ(record.substr(28, 2), std::string("e\0", 2));
    EXPECT_EQ(record.substr(32), "abc");
}

TEST_F(TraceFile, StampsTheMillisecondsOfTheSecond) {
    clock_double_stands_at(1000940);
    Trace file(name().c_str(), 0, 3);
    std::vector<std::uint16_t> seen;
    for (const std::int64_t now : {1000940, 1000970, 1001000, 1001030}) {
        clock_double_stands_at(now);
        file.WriteTraceData(405, bytes_of("x"), 1);
        seen.push_back(records().back().milliseconds);
    }
    EXPECT_THAT(seen, ElementsAre(940, 970, 0, 30));
}

TEST_F(TraceFile, HoldsTheMillisecondsAtTheStartOfTheWrite) {
    clock_double_stands_at(1000123);
    Trace file(name().c_str(), 0, 3);
    clock_double_stands_at(1000999);
    file.tprintf("x");
    EXPECT_EQ(records()[0].milliseconds, 123);
    EXPECT_EQ(records()[1].milliseconds, 999);
}

TEST_F(TraceFile, DividesTheMinutesOfTheTimeZoneByTheSecondsOfAnHour) {
    const std::vector<std::pair<std::int16_t, int>> zones{{-60, 0},  {720, 0},  {-840, 0},
                                                          {3599, 0}, {7200, 2}, {-3600, 0xFF}};
    for (const auto& [minutes, component] : zones) {
        directory_.write("t", "");
        clock_double_says_zone(minutes);
        Trace file(name().c_str(), 0, 3);
        file.tprintf("x");
        EXPECT_EQ(records()[0].component, component) << minutes;
        EXPECT_EQ(records()[1].component, 'e');
    }
}

TEST_F(TraceFile, HoldsAFormattedTextWithoutItsTerminator) {
    Trace file(name().c_str(), 0, 3);
    file.tprintf("rc=%d %s\n", 7, "%n");
    file.tprintf("%s", "");
    const std::vector<TraceRecord> found = records();
    ASSERT_EQ(found.size(), 3U);
    EXPECT_EQ(found[1].kind, text_kind);
    EXPECT_EQ(found[1].length, 8U);
    EXPECT_EQ(found[1].payload, "rc=7 %n\n");
    EXPECT_EQ(found[2].length, 0U);
    EXPECT_EQ(content().size(), 3 * 32 + 8U);
}

TEST_F(TraceFile, CutsAnOverlongText) {
    Trace file(name().c_str(), 0, 3);
    const std::string text(60000, 'x');
    file.tprintf("%s", text.c_str());
    file.write_formatted_text(text.c_str());
    EXPECT_THAT(trace_texts(name()), ElementsAre(std::string(41959, 'x'), std::string(41959, 'x')));
}

TEST_F(TraceFile, IsWrittenWithoutDelay) {
    const ChildEnd end = run_in_child([this] {
        Trace file(name().c_str(), 0, 3);
        file.tprintf("last words");
        _exit(9);
    });
    EXPECT_EQ(end.exit_code, 9);
    EXPECT_THAT(trace_texts(name()), ElementsAre("last words"));
}

TEST_F(TraceFile, IsAppendedToInModeZero) {
    directory_.write("t", "earlier");
    directory_.write("t.1", "one");
    {
        Trace file(name().c_str(), 0, 3);
        file.tprintf("x");
    }
    ASSERT_EQ(content().substr(0, 7), "earlier");
    const std::vector<TraceRecord> found = parse_trace(content().substr(7));
    ASSERT_EQ(found.size(), 2U);
    EXPECT_EQ(found[0].kind, version_kind);
    EXPECT_EQ(found[1].payload, "x");
    EXPECT_EQ(content(".1"), "one");
    EXPECT_FALSE(exists(".2"));
}

TEST_F(TraceFile, IsRotatedInModeOne) {
    directory_.write("t", "now");
    directory_.write("t.1", "one");
    directory_.write("t.2", "two");
    directory_.write("t.3", "three");
    directory_.write("t.4", "four");
    const Trace file(name().c_str(), 1, 3);
    EXPECT_EQ(content(".1"), "now");
    EXPECT_EQ(content(".2"), "one");
    EXPECT_EQ(content(".3"), "two");
    EXPECT_EQ(content(".4"), "four");
    ASSERT_EQ(records().size(), 1U);
    EXPECT_EQ(records()[0].kind, version_kind);
}

TEST_F(TraceFile, IsRotatedAcrossGaps) {
    directory_.write("t", "now");
    directory_.write("t.2", "two");
    const Trace file(name().c_str(), 1, 3);
    EXPECT_EQ(content(".1"), "now");
    EXPECT_FALSE(exists(".2"));
    EXPECT_EQ(content(".3"), "two");
    EXPECT_EQ(records().size(), 1U);
}

TEST_F(TraceFile, KeepsOneCopyWhenAskedForOne) {
    directory_.write("t", "now");
    directory_.write("t.1", "one");
    const Trace file(name().c_str(), 1, 1);
    EXPECT_EQ(content(".1"), "now");
    EXPECT_FALSE(exists(".2"));
}

TEST_F(TraceFile, KeepsNoCopiesWhenAskedForNone) {
    for (const int count : {0, -1}) {
        directory_.write("t", "now");
        directory_.write("t.1", "one");
        const Trace file(name().c_str(), 1, count);
        EXPECT_EQ(records().size(), 1U);
        EXPECT_EQ(content(".1"), "one");
        EXPECT_FALSE(exists(".2"));
    }
}

TEST_F(TraceFile, IsRotatedWhenThereIsNoneYet) {
    const Trace file(name().c_str(), 1, 3);
    EXPECT_EQ(records().size(), 1U);
    EXPECT_FALSE(exists(".1"));
}

TEST_F(TraceFile, StartsAnewWithoutCopiesInAnyOtherMode) {
    for (const int mode : {2, -1}) {
        directory_.write("t", "now");
        directory_.write("t.1", "one");
        const Trace file(name().c_str(), mode, 3);
        EXPECT_EQ(records().size(), 1U);
        EXPECT_EQ(content(".1"), "one");
        EXPECT_FALSE(exists(".2"));
    }
}

TEST_F(TraceFile, IsNoneForAnEmptyName) {
    const ChildEnd end = run_in_child([this] {
        // Wherever a nameless file might be made or rotated, it would be here.
        if (chdir(directory_.path().c_str()) != 0) {
            _exit(1);
        }
        directory_.write(".1", "one");
        Trace file("", 1, 3);
        file.tprintf("x");
        file.write_formatted_text("x");
        file.WriteTraceData(405, bytes_of("abc"), 3);
    });
    EXPECT_EQ(end.exit_code, 0);
    EXPECT_EQ(end.output + end.errors, "");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory_.path()), {}), 1);
    EXPECT_EQ(read_file(directory_.path(".1")), "one");
}

TEST_F(TraceFile, ThatCannotBeOpenedIsSilent) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    {
        Trace file(directory_.path("none/t").c_str(), 0, 3);
        file.tprintf("x");
        file.write_formatted_text("x");
        file.WriteTraceData(405, bytes_of("abc"), 3);
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(TraceFile, MayBeALinkUnderAChosenName) {
    const std::string target = directory_.write("target", "");
    std::filesystem::create_symlink(target, name());
    const Trace file(name().c_str(), 0, 3);
    EXPECT_EQ(read_trace(target).size(), 1U);
    EXPECT_TRUE(std::filesystem::is_symlink(name()));
}

TEST_F(TraceFile, IsNeverALinkUnderTheDefaultName) {
    const std::string target = directory_.write("target", "old");
    const ChildEnd end = run_in_child([&] {
        const int holder = open(directory_.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        enter_private_tmp();
        EXPECT_EQ(symlink(("/proc/self/fd/" + std::to_string(holder) + "/target").c_str(),
                          default_trace_filename),
                  0);
        const Trace file(default_trace_filename, 0, 3);
        std::printf("%zu ", read_trace(default_trace_filename).size());
        std::printf("%s", std::filesystem::is_symlink(default_trace_filename) ? "link" : "file");
    });
    if (end.exit_code == no_right_to_mount) {
        GTEST_SKIP() << "no right to mount a private /tmp";
    }
    EXPECT_EQ(end.exit_code, 0);
    EXPECT_EQ(end.output, "1 file");
    EXPECT_EQ(read_file(target), "old");
}

TEST_F(TraceFile, TakesTheLongestName) {
    const std::string directory = directory_.path() + "/";
    const std::string longest = directory + std::string(254 - directory.size(), 'x');
    directory_.write(longest.substr(directory.size()), "now");
    const Trace file(longest.c_str(), 1, 3);
    EXPECT_EQ(read_trace(longest).size(), 1U);
}

TEST_F(TraceFile, CountsTheTimeFromTheFirstStamp) {
    clock_double_stands_at(1700000000000);
    Trace file(name().c_str(), 0, 3);
    clock_double_stands_at(1700000000007);
    file.tprintf("x");
    clock_double_stands_at(1700000061000);
    file.tprintf("x");
    const std::vector<TraceRecord> found = records();
    EXPECT_EQ(found[0].clock, 0.0);
    EXPECT_EQ(found[1].clock, 7.0);
    EXPECT_EQ(found[2].clock, 61000.0);
}

TEST_F(TraceFile, SharesTheClockBetweenObjects) {
    clock_double_stands_at(5000);
    { const Trace first(directory_.path("first").c_str(), 0, 3); }
    clock_double_stands_at(5100);
    const Trace file(name().c_str(), 0, 3);
    EXPECT_EQ(records()[0].clock, 100.0);
}

TEST_F(TraceFile, NotesAClockThatGoesBackAndNeverStampsBackwards) {
    clock_double_stands_at(100000);
    Trace file(name().c_str(), 0, 3);
    clock_double_stands_at(105000);
    file.tprintf("a");
    clock_double_stands_at(102000);
    file.tprintf("b");
    clock_double_stands_at(102500);
    file.tprintf("c");
    clock_double_stands_at(101500);
    file.tprintf("d");
    clock_double_stands_at(109000);
    file.tprintf("e");
    EXPECT_THAT(
        trace_texts(name()),
        ElementsAre("a", "time adjusted backwords!  current=2000 prev=5000 adjust=3000\n", "b", "c",
                    "time adjusted backwords!  current=1500 prev=2500 adjust=4000\n", "d", "e"));
    std::vector<double> stamps;
    for (const TraceRecord& record : records()) {
        stamps.push_back(record.clock);
    }
    EXPECT_THAT(stamps, ElementsAre(0, 5000, 5000, 5000, 5500, 5500, 5500, 13000));
}

TEST_F(TraceFile, NotesAClockThatGoesBackBeforeTheFirstStamp) {
    clock_double_stands_at(100000);
    Trace file(name().c_str(), 0, 3);
    clock_double_stands_at(100001);
    file.tprintf("a");
    // Unsigned: 1000 before the start is far ahead of it.
    clock_double_stands_at(99000);
    file.tprintf("b");
    clock_double_stands_at(100002);
    file.tprintf("c");
    const std::vector<TraceRecord> found = records();
    ASSERT_EQ(found.size(), 5U);
    EXPECT_EQ(found[2].clock, 4294966296.0);
    EXPECT_EQ(found[3].payload,
              "time adjusted backwords!  current=2 prev=4294966296 adjust=4294966294\n");
    EXPECT_EQ(found[4].clock, 4294966296.0);
}

namespace {

/// What a thread writes in one of its rounds: a length and a letter that tell both.
std::string own_payload(std::uint32_t writer, std::uint32_t round) {
    return std::string(200U + 100U * writer + round, "abcdefgh"[writer]);
}

}  // namespace

TEST_F(TraceFile, WritersOfSeveralThreadsKeepRecordsWhole) {
    constexpr std::uint32_t writers = 4;
    constexpr std::uint32_t rounds = 60;
    constexpr std::uint32_t first_kind = 1000;
    Trace file(name().c_str(), 0, 3);
    std::atomic<std::uint32_t> ready{0};
    std::vector<std::thread> threads;
    threads.reserve(writers);
    for (std::uint32_t writer = 0; writer < writers; ++writer) {
        threads.emplace_back([&file, &ready, writer] {
            ++ready;
            while (ready < writers) {
                std::this_thread::yield();
            }
            for (std::uint32_t round = 0; round < rounds; ++round) {
                const std::string payload = own_payload(writer, round);
                file.WriteTraceData(first_kind + writer, bytes_of(payload),
                                    static_cast<unsigned long>(payload.size()));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const std::vector<TraceRecord> found = records();
    ASSERT_EQ(found.size(), 1U + writers * rounds);
    std::vector<std::uint32_t> counts(writers);
    for (std::size_t i = 1; i < found.size(); ++i) {
        const std::uint32_t writer = found[i].kind - first_kind;
        ASSERT_LT(writer, writers);
        EXPECT_EQ(found[i].payload, own_payload(writer, counts[writer]++));
    }
    EXPECT_THAT(counts, testing::Each(rounds));
}

TEST_F(TraceFile, StampsTheThreadThatWrites) {
    Trace file(name().c_str(), 0, 3);
    std::uint32_t other = 0;
    std::thread([&] {
        other = static_cast<std::uint32_t>(pthread_self());
        file.tprintf("x");
    }).join();
    EXPECT_EQ(records()[1].thread, other);
    EXPECT_NE(records()[1].thread, records()[0].thread);
}

TEST_F(TraceFile, WaitsForTheCriticalSection) {
    Trace file(name().c_str(), 0, 3);
    chEnterCritSec();
    std::atomic<bool> written{false};
    std::thread writer([&] {
        file.tprintf("x");
        written = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_FALSE(written);
    EXPECT_THAT(trace_texts(name()), IsEmpty());
    chExitCritSec();
    writer.join();
    EXPECT_THAT(trace_texts(name()), ElementsAre("x"));
}

TEST_F(TraceFile, WaitsForTheCriticalSectionWithItsVersionRecordToo) {
    chEnterCritSec();
    std::atomic<bool> started{false};
    std::thread opener([&] {
        const Trace file(name().c_str(), 0, 3);
        started = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_FALSE(started);
    EXPECT_EQ(content(), "");
    chExitCritSec();
    opener.join();
    EXPECT_EQ(records().size(), 1U);
}

namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

/// Runs `call` in a thread of its own.
template <typename Call>
void elsewhere(Call call) {
    std::thread(call).join();
}

bool is_held(mutexSem& mutex) {
    if (pthread_mutex_trylock(&mutex.pthreadMutex) != 0) {
        return true;
    }
    pthread_mutex_unlock(&mutex.pthreadMutex);
    return false;
}

}  // namespace

TEST(MutexSem, IsFreeAtFirst) {
    mutexSem mutex;
    EXPECT_EQ(mutex.owner, pthread_t{});
    EXPECT_EQ(mutex.semid, &mutex.pthreadMutex);
    EXPECT_EQ(mutex.createRC, 0);
    EXPECT_FALSE(is_held(mutex));
}

TEST(MutexSem, HasOneOwnerAtATime) {
    mutexSem mutex;
    EXPECT_EQ(mutex.Acquire(1), 0);
    EXPECT_TRUE(pthread_equal(mutex.owner, pthread_self()));
    EXPECT_TRUE(is_held(mutex));
    EXPECT_EQ(mutex.Release(), 0);
    EXPECT_EQ(mutex.owner, pthread_t{});
    EXPECT_FALSE(is_held(mutex));
    elsewhere([&mutex] {
        EXPECT_EQ(mutex.Acquire(0), 0);
        EXPECT_EQ(mutex.Release(), 0);
    });
}

TEST(MutexSem, GivesUpAfterTheTimeAsked) {
    mutexSem mutex;
    ASSERT_EQ(mutex.Acquire(0), 0);
    elsewhere([&mutex] {
        const Clock::time_point start = Clock::now();
        EXPECT_EQ(mutex.Acquire(1), EBUSY);
        EXPECT_GE(seconds_since(start), 0.99);
    });
    EXPECT_TRUE(pthread_equal(mutex.owner, pthread_self()));
    EXPECT_EQ(mutex.Release(), 0);
}

TEST(MutexSem, TriesTwentyTimesASecond) {
    mutexSem mutex;
    ASSERT_EQ(mutex.Acquire(0), 0);
    const SleepDouble sleeps(0);
    EXPECT_EQ(mutex.Acquire(1), EBUSY);
    EXPECT_EQ(sleeps.slept(), std::vector<long>(20, 50));
    EXPECT_EQ(mutex.Acquire(3), EBUSY);
    EXPECT_EQ(sleeps.slept(), std::vector<long>(80, 50));
    EXPECT_EQ(mutex.Release(), 0);
}

TEST(MutexSem, WaitsPracticallyForEverWithoutATime) {
    mutexSem mutex;
    ASSERT_EQ(mutex.Acquire(0), 0);
    SleepDouble sleeps(0);
    // The owner lets go after a quarter of a million attempts.
    sleeps.after_sleep = [&mutex](int count) {
        if (count == 250000) {
            mutex.Release();
        }
    };
    EXPECT_EQ(mutex.Acquire(0), 0);
    EXPECT_EQ(sleeps.slept().size(), 250000U);
    EXPECT_EQ(mutex.Release(), 0);
}

TEST(MutexSem, IsNotRecursive) {
    mutexSem mutex;
    ASSERT_EQ(mutex.Acquire(0), 0);
    EXPECT_EQ(mutex.Acquire(1), EBUSY);
    EXPECT_EQ(mutex.Release(), 0);
    EXPECT_FALSE(is_held(mutex));
}

TEST(MutexSem, IsTakenWhenItsOwnerLetsGo) {
    mutexSem mutex;
    ASSERT_EQ(mutex.Acquire(0), 0);
    std::atomic<int> result{-1};
    std::thread waiting([&] {
        result = mutex.Acquire(0);
        mutex.Release();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(120));
    EXPECT_EQ(result, -1);
    EXPECT_EQ(mutex.Release(), 0);
    waiting.join();
    EXPECT_EQ(result, 0);
}

TEST(MutexSem, IsNotReleasedByAnotherThread) {
    mutexSem mutex;
    ASSERT_EQ(mutex.Acquire(0), 0);
    elsewhere([&mutex] { EXPECT_EQ(mutex.Release(), 0); });
    EXPECT_TRUE(is_held(mutex));
    EXPECT_TRUE(pthread_equal(mutex.owner, pthread_self()));
    EXPECT_EQ(mutex.Release(), 0);
    EXPECT_FALSE(is_held(mutex));
}

TEST(MutexSem, MayBeReleasedTwice) {
    mutexSem mutex;
    EXPECT_EQ(mutex.Release(), 0);
    ASSERT_EQ(mutex.Acquire(0), 0);
    EXPECT_EQ(mutex.Release(), 0);
    EXPECT_EQ(mutex.Release(), 0);
    EXPECT_EQ(mutex.Acquire(1), 0);
    EXPECT_EQ(mutex.Release(), 0);
}

TEST(MutexSem, IsUsableAfterDestroy) {
    mutexSem mutex;
    EXPECT_EQ(mutex.Destroy(), 0);
    EXPECT_EQ(mutex.Acquire(1), 0);
    EXPECT_EQ(mutex.Destroy(), 0);
    EXPECT_TRUE(is_held(mutex));
    EXPECT_EQ(mutex.Release(), 0);
    EXPECT_FALSE(is_held(mutex));
}

TEST(MutexSem, WithoutAMutexDoesNothing) {
    mutexSem mutex;
    mutex.semid = nullptr;
    EXPECT_EQ(mutex.Acquire(0), 0);
    EXPECT_EQ(mutex.Acquire(0), 0);
    EXPECT_EQ(mutex.owner, pthread_t{});
    EXPECT_FALSE(is_held(mutex));
    EXPECT_EQ(mutex.Release(), 0);
    EXPECT_EQ(mutex.Destroy(), 0);
}

TEST(MutexSem, TakesNothingWhenTheTimeWrapsToZero) {
    mutexSem mutex;
    // 536870912 * 1000 is 125 * 2^32.
    for (const unsigned int timeout : {536870912U, 1073741824U, 3758096384U}) {
        EXPECT_EQ(mutex.Acquire(timeout), 0);
        EXPECT_EQ(mutex.owner, pthread_t{});
        EXPECT_FALSE(is_held(mutex));
    }
}

TEST(MutexSem, WaitsTheWrappedTime) {
    mutexSem mutex;
    ASSERT_EQ(mutex.Acquire(0), 0);
    const SleepDouble sleeps(0);
    EXPECT_EQ(mutex.Acquire(536870913U), EBUSY);
    EXPECT_EQ(sleeps.slept(), std::vector<long>(20, 50));
    EXPECT_EQ(mutex.Release(), 0);
}

TEST(MutexSem, LetsOneThreadInAtATime) {
    constexpr int threads_count = 4;
    constexpr int rounds = 40;
    int counter = 0;
    std::vector<std::thread> threads;
    threads.reserve(threads_count);
    for (int i = 0; i < threads_count; ++i) {
        threads.emplace_back([&counter] {
            for (int round = 0; round < rounds; ++round) {
                chEnterCritSec();
                const int seen = counter;
                std::this_thread::yield();
                counter = seen + 1;
                chExitCritSec();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(counter, threads_count * rounds);
}
