#include "journal/output.h"
#include "journal/zelfwtrace.h"
#include "session/zelflash.h"
#include "settings.h"
#include "support/flash_test.h"
#include "usb/zelflshhid.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <ucontext.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int generous = 10000;  // milliseconds

class Reader : public FlashTest {
  protected:
    static constexpr int slot = 4;

    thread_table& flags() { return flash->ThreadTable[slot]; }
    void make_handle(const std::string& path) {
        flash->hiddev = std::make_unique<HIDDEVICE2>(0, 0, path.c_str());
    }
    int set_up(int timeout) {
        make_handle(device.path());
        return flash->setup_device_for_reading(device.path().c_str(), timeout, slot);
    }
    int query() {
        Bytes command = wire::device_information_query;
        return flash->send_command(reinterpret_cast<char*>(command.data()),
                                   static_cast<int>(command.size()), slot, generous);
    }
    bool log_shows(const std::string& line, int times = 1) {
        for (int waited = 0; waited < generous; waited += 5) {
            if (debugged(line) + logged(line) >= times) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return false;
    }

    FlashPeripheral& device = bus.add(0x4123);
};

}  // namespace

TEST_F(Reader, IsNotNeededForADeviceThatCantBeOpened) {
    const std::string path = "//?/hid#vid_7a01&pid_9999&mi_00#bus_01&dev_099";
    make_handle(path);
    EXPECT_EQ(flash->setup_device_for_reading(path.c_str(), 2000, slot), 5);
    EXPECT_EQ(flash->hiddev, nullptr);
    EXPECT_EQ(logged("Could not get open status for '" + path + "'"), 1);
    EXPECT_EQ(flags().device_closed, 1);
    EXPECT_EQ(threads.created(), 0);
}

TEST_F(Reader, IsNotNeededWithoutADevice) {
    EXPECT_EQ(flash->setup_device_for_reading("nothing", 2000, slot), 5);
    EXPECT_EQ(logged("Could not get open status for 'nothing'"), 1);
}

TEST_F(Reader, IsNotNeededForAnotherInterface) {
    std::string path = device.path();
    path.replace(path.find("usage_a000"), 10, "usage_a010");
    make_handle(path);
    EXPECT_EQ(flash->setup_device_for_reading(path.c_str(), 2000, slot), 5);
    EXPECT_EQ(flash->hiddev, nullptr);
    EXPECT_EQ(logged("Could not open read handle for '" + path + "'"), 1);
    EXPECT_EQ(usb.live_handles, 0);
}

TEST_F(Reader, FailuresToOpenAreToldWhenVerbose) {
    const auto action = [this] { flash->setup_device_for_reading("nothing", 0, slot); };
    EXPECT_EQ(console_of(1, 0, action), "");
    EXPECT_EQ(console_of(2, 1, action), "Could not get open status for 'nothing'\n");
}

TEST_F(Reader, IsNotStartedWithoutATimeOut) {
    EXPECT_EQ(set_up(0), 0);
    EXPECT_EQ(flags().device_closed, 0);
    EXPECT_EQ(flags().stopped, 1);
    EXPECT_EQ(threads.created(), 0);
    EXPECT_TRUE(sleeps.slept().empty());
}

TEST_F(Reader, RunsBehindAnOpenDevice) {
    EXPECT_EQ(set_up(2000), 0);
    EXPECT_EQ(flash->use_thread_reading, 1);
    EXPECT_EQ(flash->ThreadIndex, slot);
    EXPECT_EQ(debugged("Background message reading thread starting for '" + device.path() +
                       "' timeout=2000, index=4"),
              1);
    EXPECT_TRUE(device.read_is_pending_within(generous));
    EXPECT_EQ(flags().stopped, 0);
    EXPECT_EQ(flags().device_in_use, 1);
    EXPECT_EQ(flags().device_closed, 0);
    EXPECT_EQ(flags().read_hid_in_progress, 1);
    EXPECT_NE(flags().hThread, pthread_t{0});
    EXPECT_EQ(flags().hThread, flash->hThread);
    EXPECT_EQ(sleeps.slept().front(), 100);
    EXPECT_EQ(debugged("starting read_hid_messages (index=4)"), 1);
    EXPECT_EQ(debugged("-------------------------------------"), 2);
    EXPECT_EQ(debugged("4: read_hid_messages started (device_closed=0)"), 1);
    EXPECT_EQ(debugged("finished waiting for device to start (in_progress=1)"), 1);
}

TEST_F(Reader, HandsReportsOver) {
    device.answers[wire::device_information_query] = {{0x09, 2, 3, 4, 5, 6, 7, 8}};
    set_up(2000);
    EXPECT_EQ(query(), 0);
    EXPECT_TRUE(log_shows("4: last_status[0]=09 (device_closed=0)"));
    EXPECT_EQ(std::memcmp("\x09\x02\x03\x04\x05\x06\x07\x08", flash->last_status, 8), 0);
    EXPECT_EQ(flash->status_ready, 0);
}

TEST_F(Reader, TellsOfRejectsAndErrors) {
    set_up(2000);
    device.report({0xC0});
    EXPECT_TRUE(log_shows("4: Command reject from device"));
    EXPECT_EQ(debugged("4: Operation error, stop flash operation"), 0);
    device.report({0x40});
    EXPECT_TRUE(log_shows("4: Operation error, stop flash operation"));
    EXPECT_EQ(debugged("4: Command reject from device"), 1);
}

TEST_F(Reader, GivesThePreviousReportAfterAFailedRead) {
    device.other_answer = {{0x01, 0x22}};
    set_up(2000);
    EXPECT_EQ(query(), 0);
    EXPECT_TRUE(log_shows("4: last_status[0]=01 (device_closed=0)"));
    device.report_failure(LIBUSB_ERROR_IO);
    std::array<char, 8> answer{};
    EXPECT_EQ(flash->wait_for_message(generous, answer.data(), 8, slot), 0);
    EXPECT_EQ(answer[0], 0x01);
    EXPECT_EQ(answer[1], 0x22);
    EXPECT_TRUE(
        log_shows("4: Failure reading from flash device, rc=7.  Stopping (device_closed=0)"));
    // It reads on.
    EXPECT_EQ(flags().read_hid_in_progress, 1);
    device.other_answer = {{0x01, 0x33}};
    EXPECT_EQ(query(), 0);
    EXPECT_TRUE(log_shows("4: last_status[0]=01 (device_closed=0)", 2));
    EXPECT_EQ(flash->last_status[1], 0x33);
}

TEST_F(Reader, DoesNotSpinOnADeviceThatIsGone) {
    set_up(2000);
    const auto failures = [this] {
        return log.count("4: Failure reading from flash device, rc=13.");
    };
    const auto start = std::chrono::steady_clock::now();
    device.unplug();
    for (int waited = 0; failures() < 10 && waited < generous; waited += 5) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    const int seen = failures();
    const std::chrono::duration<double, std::milli> passed =
        std::chrono::steady_clock::now() - start;
    EXPECT_GE(seen, 10);
    // Ten milliseconds lie between two of them, however busy the machine is.
    EXPECT_LE(seen, 1 + passed.count() / 9);
}

TEST_F(Reader, LeavesWhenTheDeviceIsClosed) {
    set_up(2000);
    ASSERT_TRUE(device.read_is_pending_within(generous));
    EXPECT_EQ(flash->close_device_after_use(slot, 1), 0);
    EXPECT_EQ(device.count(wire::stop), 1);
    EXPECT_EQ(flags().stopped, 1);
    EXPECT_EQ(flags().device_closed, 1);
    EXPECT_EQ(flags().device_in_use, 0);
    EXPECT_EQ(flags().read_hid_in_progress, 0);
    EXPECT_EQ(flags().hThread, pthread_t{0});
    EXPECT_EQ(flash->hiddev, nullptr);
    EXPECT_EQ(usb.live_handles, 0);
    EXPECT_TRUE(threads.all_ended_within(generous));
    EXPECT_EQ(threads.unreclaimed(), 0);
    for (const char* const line :
         {"4: close_device_after_use: device_in_use being reset",
          "Stopping thread (index=4, in_use=0, stopped=1)",
          "4: waiting for device to close (device_closed=0)",
          "4: finished waiting for device to close (read_hid_in_progress=0, device_closed=0)",
          "4: close_device_after_use: closing handles",
          "4: close_device_after_use: wait finished (in_progress=0)",
          "4: read_flash returned rc=0 (stopped=1 device_closed=0)",
          "4: Stopping (stopped=1, device_closed=0)",
          "4: read_hid_messages finished (device_closed=0)",
          "4: Closing background message reading thread", "stopping read_hid_messages (index=4)"}) {
        EXPECT_EQ(debugged(line), 1) << line;
    }
    EXPECT_EQ(log.count("join thread"), 0);
}

TEST_F(Reader, LeavesWithoutAnAnswerOnceTheInterfaceIsReleased) {
    device.other_answer = {};
    SleepDouble quick{400};
    set_up(2000);
    ASSERT_TRUE(device.read_is_pending_within(generous));
    const size_t before = quick.slept().size();
    EXPECT_EQ(flash->close_device_after_use(slot, 0), 0);
    EXPECT_EQ(device.count(wire::stop), 0);
    EXPECT_TRUE(threads.all_ended_within(generous));
    EXPECT_EQ(flash->hiddev, nullptr);
    EXPECT_EQ(usb.live_handles, 0);
    EXPECT_LE(quick.slept().size() - before, 100U);
    EXPECT_EQ(log.count("its device stays open"), 0);
}

TEST_F(Reader, TheHandleIsClosedForWritingFirst) {
    set_up(0);
    const size_t before = usb.calls().size();
    flash->close_device_after_use(slot, 0);
    const std::vector<std::string> calls = usb.calls();
    const auto after = calls.begin() + static_cast<std::ptrdiff_t>(before);
    // The second of the two handles releases the interface.
    EXPECT_EQ(std::count(after, calls.end(), "release 0"), 1);
    EXPECT_EQ(calls.back(), "close 2");
}

namespace {

const ZELFLASH* closing_session = nullptr;
decltype(p_libusb_release_interface) release_below = nullptr;
int closed_at_release = -1;

}  // namespace

TEST_F(Reader, IsAskedToStopBeforeTheStopCommandAndToldOfTheCloseBeforeTheHandlesClose) {
    set_up(2000);
    ASSERT_TRUE(device.read_is_pending_within(generous));
    thread_table at_stop{};
    device.on_command = [&](const Bytes&) { at_stop = flags(); };
    closing_session = flash.get();
    release_below = p_libusb_release_interface;
    p_libusb_release_interface = [](libusb_device_handle* handle, int number) {
        closed_at_release = closing_session->ThreadTable[slot].device_closed;
        return release_below(handle, number);
    };
    EXPECT_EQ(flash->close_device_after_use(slot, 1), 0);
    EXPECT_EQ(at_stop.stopped, 1);
    EXPECT_EQ(at_stop.device_in_use, 0);
    EXPECT_EQ(at_stop.device_closed, 0);
    EXPECT_EQ(closed_at_release, 1);
}

TEST_F(Reader, ClosingWithoutHandleAndThreadOnlySetsTheFlags) {
    flags() = {.stopped = 0,
               .device_in_use = 1,
               .device_closed = 0,
               .read_hid_in_progress = 0,
               .hThread = 0};
    EXPECT_EQ(flash->close_device_after_use(slot, 0), 0);
    EXPECT_EQ(flags().stopped, 1);
    EXPECT_EQ(flags().device_closed, 1);
    EXPECT_EQ(flags().device_in_use, 0);
    EXPECT_EQ(log.count("wait finished"), 0);
    EXPECT_TRUE(sleeps.slept().empty());
}

TEST_F(Reader, ThatHasEndedIsNotWaitedFor) {
    set_up(0);
    flash->use_thread_reading = 1;
    flash->wait_for_close(slot);
    EXPECT_EQ(device.count(wire::stop), 1);
    EXPECT_TRUE(sleeps.slept().empty());
    EXPECT_EQ(debugged("4: waiting for device to close (device_closed=0)"), 1);
}

TEST_F(Reader, ThatWasNeverThereIsNotWaitedFor) {
    set_up(0);
    flags().read_hid_in_progress = 1;
    flash->wait_for_close(slot);
    EXPECT_EQ(device.count(wire::stop), 1);
    EXPECT_TRUE(sleeps.slept().empty());
    EXPECT_EQ(log.count("waiting for device to close"), 0);
}

TEST_F(Reader, IsWaitedForAboutASecond) {
    set_up(0);
    const SleepDouble instant{0};
    flash->use_thread_reading = 1;
    flags().read_hid_in_progress = 1;
    flash->wait_for_close(slot);
    EXPECT_EQ(instant.slept(), std::vector<long>(100, 10));
    EXPECT_EQ(debugged("4: finished waiting for device to close (read_hid_in_progress=1, "
                       "device_closed=0)"),
              1);
}

TEST_F(Reader, IsJoinedWhenAskedFor) {
    set_up(2000);
    read_hid_in_progress = 1;
    flash->close_device_after_use(slot, 1);
    EXPECT_EQ(log.count("4: close_device_after_use: hThread=0x"), 2);
    EXPECT_EQ(log.count(" - join thread\n"), 1);
    EXPECT_EQ(threads.unreclaimed(), 0);
    EXPECT_TRUE(threads.all_ended_within(generous));
}

TEST_F(Reader, IsNotStartedWithBackgroundReadingOff) {
    background_read = 0;
    flash->use_thread_reading = 1;
    EXPECT_EQ(flash->start_background_thread(2000, slot), 5);
    EXPECT_EQ(flash->use_thread_reading, 0);
    EXPECT_EQ(threads.created(), 0);
    EXPECT_EQ(flags().hThread, pthread_t{0});
    EXPECT_EQ(sleeps.slept(), std::vector<long>{100});
}

TEST_F(Reader, AThreadThatCantBeCreatedGivesItsCode) {
    threads.fail_with(EAGAIN);
    EXPECT_EQ(set_up(2000), EAGAIN);
    EXPECT_EQ(flash->use_thread_reading, 0);
    EXPECT_EQ(flags().hThread, pthread_t{0});
    EXPECT_EQ(sleeps.slept(), std::vector<long>{100});
    EXPECT_EQ(flash->close_device_after_use(slot, 1), 0);
    EXPECT_TRUE(flash->finish());
}

TEST_F(Reader, ThatDoesNotComeUpIsDoneWithout) {
    threads.hold_back();
    EXPECT_EQ(set_up(50), 0);
    EXPECT_EQ(flash->use_thread_reading, 0);
    EXPECT_EQ(sleeps.slept(), (std::vector<long>{100, 15, 15, 15}));
    EXPECT_EQ(debugged("waiting for device to start (in_progress=0)"), 1);
    EXPECT_EQ(debugged("finished waiting for device to start (in_progress=0)"), 1);
    EXPECT_EQ(debugged("cannot use tread reading"), 1);
    // Answers are read directly then.
    device.answers[wire::device_information_query] = {{0x01}};
    EXPECT_EQ(query(), 0);
}

TEST_F(Reader, ThatComesUpTooLateReadsNothing) {
    threads.hold_back();
    EXPECT_EQ(set_up(50), 0);
    EXPECT_EQ(flags().stopped, 1);
    threads.let_go();
    EXPECT_TRUE(threads.all_ended_within(generous));
    EXPECT_EQ(log.count("Sending Read Request"), 0);
    EXPECT_EQ(debugged("4: Stopping (stopped=1, device_closed=0)"), 1);
    // The answer is the direct read's.
    device.answers[wire::device_information_query] = {{0x01}};
    EXPECT_EQ(query(), 0);
    EXPECT_EQ(debugged("Sending Read Request to a002"), 1);
}

TEST_F(Reader, IsNotWaitedForBelowThePollInterval) {
    threads.hold_back();
    EXPECT_EQ(set_up(14), 0);
    EXPECT_EQ(flash->use_thread_reading, 0);
    EXPECT_EQ(sleeps.slept(), std::vector<long>{100});
    EXPECT_EQ(debugged("cannot use tread reading"), 1);
}

TEST_F(Reader, ThatIsUpAlreadyIsNotWaitedFor) {
    threads.hold_back();
    flags().read_hid_in_progress = 1;
    EXPECT_EQ(set_up(2000), 0);
    EXPECT_EQ(flash->use_thread_reading, 1);
    EXPECT_EQ(sleeps.slept(), std::vector<long>{100});
    EXPECT_EQ(debugged("waiting for device to start (in_progress=1)"), 1);
    EXPECT_EQ(debugged("finished waiting for device to start (in_progress=1)"), 1);
    flags().read_hid_in_progress = 0;
}

TEST_F(Reader, ThatStartsLateDoesNotUndoAStop) {
    threads.hold_back();
    set_up(14);
    const SleepDouble instant{0};
    EXPECT_EQ(flash->close_device_after_use(slot, 1), 0);
    threads.let_go();
    EXPECT_TRUE(threads.all_ended_within(generous));
    EXPECT_EQ(flags().stopped, 1);
    EXPECT_EQ(flags().read_hid_in_progress, 0);
    EXPECT_EQ(threads.unreclaimed(), 0);
    EXPECT_TRUE(flash->finish());
}

TEST_F(Reader, ThatStartsAfterTheCloseDoesNotOpenTheDeviceAgain) {
    threads.hold_back();
    set_up(14);
    flags().stopped = 1;
    flags().device_closed = 1;
    flash->hiddev->CloseWriteHandle();
    flash->hiddev->CloseReadHandle();
    const std::vector<std::string> before = usb.calls();
    threads.let_go();
    EXPECT_TRUE(threads.all_ended_within(generous));
    EXPECT_EQ(usb.calls(), before);
    EXPECT_EQ(debugged("4: Stopping (stopped=1, device_closed=1)"), 1);
}

TEST_F(Reader, ThatLingersKeepsItsDeviceAllocated) {
    device.ignores_release = true;
    device.other_answer = {};
    set_up(2000);
    ASSERT_TRUE(device.read_is_pending_within(generous));
    {
        const SleepDouble instant{0};
        EXPECT_EQ(flash->close_device_after_use(slot, 1), 0);
        EXPECT_EQ(flash->hiddev, nullptr);
        EXPECT_EQ(debugged("4: the reader does not leave, its device stays open"), 1);
        EXPECT_EQ(usb.live_handles, 1);
        // The session and its trace must outlive the reader.
        trace = std::make_unique<Trace>("", 0, 0);
        const std::unique_ptr<Trace> left(trace.get());
        EXPECT_FALSE(flash->finish());
        EXPECT_EQ(trace, nullptr);
        EXPECT_EQ(usb.live_handles, 1);
    }
    // What the read touches on its way out is still there, which the address sanitizer checks.
    device.let_reads_end();
    EXPECT_TRUE(threads.all_ended_within(generous));
    EXPECT_TRUE(flash->finish());
    flash.reset();
    EXPECT_EQ(usb.live_handles, 0);
}

TEST_F(Reader, ThatLeavesInTimeFreesItsDevice) {
    device.ignores_release = true;
    device.other_answer = {};
    set_up(2000);
    ASSERT_TRUE(device.read_is_pending_within(generous));
    SleepDouble quick{0};
    quick.after_sleep = [this](int count) {
        if (count == 150) {
            device.let_reads_end();
            EXPECT_TRUE(threads.all_ended_within(generous));
        }
    };
    EXPECT_EQ(flash->close_device_after_use(slot, 1), 0);
    EXPECT_EQ(flash->hiddev, nullptr);
    EXPECT_EQ(usb.live_handles, 0);
    EXPECT_EQ(log.count("its device stays open"), 0);
    EXPECT_TRUE(flash->finish());
}

TEST_F(Reader, OpeningsInARowLeaveNothingBehind) {
    for (int opening = 0; opening < 5; ++opening) {
        make_handle(device.path());
        ASSERT_EQ(flash->setup_device_for_reading(device.path().c_str(), 2000, opening), 0);
        ASSERT_EQ(flash->close_device_after_use(opening, 1), 0);
    }
    EXPECT_EQ(threads.created(), 5);
    EXPECT_TRUE(threads.all_ended_within(generous));
    EXPECT_EQ(threads.unreclaimed(), 0);
    EXPECT_EQ(usb.live_handles, 0);
    EXPECT_EQ(usb.live_contexts, 0);
    EXPECT_EQ(usb.live_configurations, 0);
    EXPECT_EQ(usb.null_handles, 0);
}

TEST_F(Reader, LeavesTheMainThreadsSignalsToIt) {
    sigset_t blocked;
    sigemptyset(&blocked);
    device.on_read = [&blocked] { pthread_sigmask(SIG_BLOCK, nullptr, &blocked); };
    set_up(2000);
    ASSERT_TRUE(device.read_is_pending_within(generous));
    flash->close_device_after_use(slot, 1);
    ASSERT_TRUE(threads.all_ended_within(generous));
    EXPECT_EQ(sigismember(&blocked, SIGUSR1), 1);
    EXPECT_EQ(sigismember(&blocked, SIGUSR2), 1);
    EXPECT_EQ(sigismember(&blocked, SIGALRM), 1);
    EXPECT_EQ(sigismember(&blocked, SIGSEGV), 0);
    EXPECT_EQ(sigismember(&blocked, SIGINT), 0);
}

TEST_F(Reader, EndsWithTheSharedExitValue) {
    EXPECT_EQ(start_read_thread(nullptr), &NewMsgExitStatus);
}

TEST_F(Reader, ReadsInTheCallingThreadUntilItIsStopped) {
    set_up(0);
    flags().stopped = 0;
    device.report({0x01, 0x11});
    device.on_read = [this, count = 0]() mutable {
        if (++count == 2) {
            flags().device_closed = 1;
            device.report({0x01, 0x22});
        }
    };
    flash->read_hid_messages(slot);
    // What comes when the device is being closed is not handed over.
    EXPECT_EQ(flash->last_status[1], 0x11);
    EXPECT_EQ(flags().device_in_use, 0);
    EXPECT_EQ(flags().read_hid_in_progress, 0);
    EXPECT_EQ(debugged("4: Stopping (stopped=0, device_closed=1)"), 1);
}

TEST_F(Reader, TellsOfFailedReadsWhenVerbose) {
    set_up(0);
    const auto read_a_failure = [this] {
        flags().stopped = 0;
        device.report_failure(LIBUSB_ERROR_IO);
        device.on_read = [this, count = 0]() mutable {
            if (++count == 2) {
                flags().stopped = 1;
                device.report({0x01});
            }
        };
        flash->read_hid_messages(slot);
    };
    EXPECT_EQ(console_of(1, 0, read_a_failure), "");
    EXPECT_EQ(console_of(2, 1, read_a_failure),
              "4: Failure reading from flash device, rc=7.  Stopping (device_closed=0)\n");
}

namespace {

#if (defined(__x86_64__) || defined(__i386__)) && !defined(__SANITIZE_THREAD__)

// The order in which the reader writes the flag and the report, seen one instruction at a time.

const ZELFLASH* watched_session = nullptr;
volatile sig_atomic_t flag_came_first = -1;

constexpr unsigned long trap_flag = 0x100;

void watch_one_instruction(int /*signal*/, siginfo_t* /*info*/, void* context) {
    auto& flags = static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL];
    const bool has_flag = watched_session->status_ready == 1;
    const bool has_report = watched_session->last_status[1] != 0;
    if (has_flag || has_report) {
        flag_came_first = has_flag && !has_report ? 1 : 0;
        flags &= ~static_cast<std::remove_reference_t<decltype(flags)>>(trap_flag);
    }
}

}  // namespace

TEST_F(Reader, SetsTheFlagBeforeItCopiesTheReport) {
    set_up(0);
    flags().stopped = 0;
    OutputLevel = 0;
    watched_session = flash.get();
    struct sigaction action = {};
    action.sa_sigaction = watch_one_instruction;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGTRAP, &action, nullptr);
    device.report({0x01, 0x11});
    device.on_read = [this, count = 0]() mutable {
        if (++count == 2) {
            flags().stopped = 1;
            device.report({0x01});
            return;
        }
#ifdef __x86_64__
        __builtin_ia32_writeeflags_u64(__builtin_ia32_readeflags_u64() | trap_flag);
#else
        __builtin_ia32_writeeflags_u32(__builtin_ia32_readeflags_u32() | trap_flag);
#endif
    };
    flash->read_hid_messages(slot);
    EXPECT_EQ(flag_came_first, 1);
}

namespace {

#endif

}  // namespace
