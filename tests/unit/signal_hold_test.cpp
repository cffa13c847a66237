#include "process/signal_hold.h"

#include "journal/output.h"
#include "journal/zelfwtrace.h"
#include "process/wire_silence.h"
#include "support/child_process.h"
#include "support/temporary_directory.h"
#include "support/trace_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using testing::HasSubstr;

namespace {

constexpr char explanation[] =
    "\nFinishing the component in progress, do not disconnect the device\n";

constexpr char incomplete_image[] =
    "\nStopped while nothing moved on the wire: the image of PID: 3c35 COMP: 2 (SN='PR40021') is "
    "incomplete. Leave the device plugged in and run the same update again\n";
constexpr ComponentInProgress font = {0x3C35, "PR40021", 2};
/// Longer than a silence has to be for a repeated signal to end the run.
constexpr int long_silence = 3100;  // milliseconds

/// Lets time pass in which nothing moves on the wire.
void be_silent() {
    poll(nullptr, 0, long_silence);
}

std::vector<int> signals_to_hold() {
    return {SIGHUP,  SIGINT,    SIGQUIT, SIGUSR1, SIGUSR2, SIGALRM,  SIGTERM, SIGSTKFLT,
            SIGXCPU, SIGVTALRM, SIGPROF, SIGIO,   SIGPWR,  SIGRTMIN, SIGRTMAX};
}

class HeldSignals : public testing::TestWithParam<int> {};

void our_handler(int /*signal_number*/) {}

/// True when the signal is one that nobody handles.
bool has_default_disposition(int signal_number) {
    struct sigaction action = {};
    sigaction(signal_number, nullptr, &action);
    return action.sa_handler == SIG_DFL;
}

}  // namespace

TEST_P(HeldSignals, EndTheProcessOutsideAHold) {
    const ChildEnd end = run_in_child([] {
        { const SignalHold hold(font); }
        raise(GetParam());
    });
    EXPECT_EQ(end.signal, GetParam());
    EXPECT_EQ(end.output, "");
}

TEST_P(HeldSignals, AreHeldBackInScope) {
    const ChildEnd end = run_in_child([] {
        EXPECT_EQ(SignalHold::held_signal(), 0);
        const SignalHold hold(font);
        EXPECT_EQ(SignalHold::held_signal(), 0);
        raise(GetParam());
        EXPECT_EQ(SignalHold::held_signal(), GetParam());
        _exit(testing::Test::HasFailure() ? 1 : 7);
    });
    EXPECT_EQ(end.exit_code, 7);
    EXPECT_EQ(end.output, explanation);
}

TEST_P(HeldSignals, EndTheRunInTheEnd) {
    const ChildEnd end = run_in_child([] {
        {
            const SignalHold hold(font);
            raise(GetParam());
        }
        writelog(1, "wound up\n");
        SignalHold::end_by_held_signal();
        writelog(1, "still there\n");
    });
    EXPECT_EQ(end.signal, GetParam());
    EXPECT_EQ(end.output, std::string(explanation) + "wound up\n");
}

TEST_P(HeldSignals, StayHeldUntilTheRunIsWoundUp) {
    const ChildEnd end = run_in_child([] {
        {
            const SignalHold hold(font);
            raise(GetParam());
        }
        raise(SIGINT);
        raise(SIGTERM);
        {
            const SignalHold next(font);
            raise(SIGHUP);
        }
        raise(GetParam());
        _exit(SignalHold::held_signal());
    });
    EXPECT_EQ(end.exit_code, GetParam());
    EXPECT_EQ(end.output, explanation);
}

TEST_P(HeldSignals, GetTheirDispositionBack) {
    const ChildEnd end = run_in_child([] {
        struct sigaction action = {};
        action.sa_handler = our_handler;
        action.sa_flags = SA_RESTART;
        sigaction(GetParam(), &action, nullptr);
        { const SignalHold hold(font); }
        struct sigaction after = {};
        sigaction(GetParam(), nullptr, &after);
        EXPECT_EQ(after.sa_handler, &our_handler);
        EXPECT_NE(after.sa_flags & SA_RESTART, 0);
        signal(GetParam(), SIG_DFL);
        { const SignalHold hold(font); }
        EXPECT_TRUE(has_default_disposition(GetParam()));
        _exit(testing::Test::HasFailure() ? 1 : 7);
    });
    EXPECT_EQ(end.exit_code, 7);
}

TEST_P(HeldSignals, StayIgnoredWhenTheyWere) {
    const ChildEnd end = run_in_child([] {
        signal(GetParam(), SIG_IGN);
        {
            const SignalHold hold(font);
            raise(GetParam());
            EXPECT_EQ(SignalHold::held_signal(), 0);
        }
        raise(GetParam());
        SignalHold::end_by_held_signal();
        _exit(testing::Test::HasFailure() ? 1 : 7);
    });
    EXPECT_EQ(end.exit_code, 7);
    EXPECT_EQ(end.output, "");
}

TEST_P(HeldSignals, AreNotExplainedAtTheQuietLevel) {
    const ChildEnd end = run_in_child([] {
        OutputLevel = 0;
        const SignalHold hold(font);
        raise(GetParam());
        _exit(SignalHold::held_signal());
    });
    EXPECT_EQ(end.exit_code, GetParam());
    EXPECT_EQ(end.output, "");
}

INSTANTIATE_TEST_SUITE_P(Each, HeldSignals, testing::ValuesIn(signals_to_hold()),
                         [](const auto& given) {
                             const char* const name = sigabbrev_np(given.param);
                             return name != nullptr ? std::string(name)
                                                    : "Rt" + std::to_string(given.param - SIGRTMIN);
                         });

TEST(SignalHold, RemembersTheFirstSignalAndExplainsOnce) {
    const ChildEnd end = run_in_child([] {
        const SignalHold hold(font);
        raise(SIGTERM);
        raise(SIGINT);
        raise(SIGHUP);
        raise(SIGTERM);
        SignalHold::end_by_held_signal();
    });
    EXPECT_EQ(end.signal, SIGTERM);
    EXPECT_EQ(end.output, explanation);
}

TEST(SignalHold, HoldsTheHangUpOfAConsoleThatIsGone) {
    const ChildEnd end = run_in_child([] {
        signal(SIGPIPE, SIG_IGN);
        int broken[2] = {};
        if (pipe(broken) != 0) {
            _exit(1);
        }
        close(broken[0]);
        dup2(broken[1], STDOUT_FILENO);
        const SignalHold hold(font);
        errno = ENOENT;
        raise(SIGHUP);
        _exit(errno == ENOENT ? SignalHold::held_signal() : 2);
    });
    EXPECT_EQ(end.exit_code, SIGHUP);
}

TEST(SignalHold, LeavesTheProgramsOwnFaultsAlone) {
    for (const int number : {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSYS, SIGTRAP}) {
        const ChildEnd end = run_in_child([number] {
            signal(number, SIG_DFL);
            const SignalHold hold(font);
            raise(number);
        });
        EXPECT_EQ(end.signal, number);
    }
}

TEST(SignalHold, LeavesASignalToItsHandler) {
    const ChildEnd end = run_in_child([] {
        signal(SIGPROF, our_handler);
        const SignalHold hold(font);
        raise(SIGPROF);
        _exit(SignalHold::held_signal() == 0 ? 7 : 1);
    });
    EXPECT_EQ(end.exit_code, 7);
    EXPECT_EQ(end.output, "");
}

TEST(SignalHold, EndsNothingWithoutASignal) {
    const ChildEnd end = run_in_child([] {
        { const SignalHold hold(font); }
        SignalHold::end_by_held_signal();
        _exit(7);
    });
    EXPECT_EQ(end.exit_code, 7);
}

TEST(SignalHold, IsNotEndedByASecondSignalAtOnce) {
    const ChildEnd end = run_in_child([] {
        const SignalHold hold(font);
        be_silent();
        raise(SIGTERM);
        raise(SIGTERM);
        _exit(7);
    });
    EXPECT_EQ(end.exit_code, 7);
    EXPECT_EQ(end.output, explanation);
}

TEST(SignalHold, IsNotEndedWhileTheWireMoves) {
    const ChildEnd end = run_in_child([] {
        const SignalHold hold(font);
        raise(SIGTERM);
        be_silent();
        note_wire_movement();
        raise(SIGTERM);
        _exit(7);
    });
    EXPECT_EQ(end.exit_code, 7);
    EXPECT_EQ(end.output, explanation);
}

TEST(SignalHold, IsEndedByASecondSignalInALongSilence) {
    for (const int second : {SIGTERM, SIGQUIT, SIGUSR1}) {
        const TemporaryDirectory directory;
        const ChildEnd end = run_in_child([&] {
            open_log_file(directory.path("log").c_str());
            trace = std::make_unique<Trace>(directory.path("trace").c_str(), 0, 0);
            const SignalHold hold(font);
            raise(SIGTERM);
            be_silent();
            raise(second);
        });
        EXPECT_EQ(end.signal, second);
        EXPECT_EQ(end.output, std::string(explanation) + incomplete_image);
        EXPECT_EQ(read_file(directory.path("log")), incomplete_image);
        EXPECT_EQ(trace_texts(directory.path("trace")), std::vector<std::string>{incomplete_image});
    }
}

TEST(SignalHold, IsEndedThoughTheInterruptedThreadHoldsEveryLock) {
    const TemporaryDirectory directory;
    const ChildEnd end = run_in_child([&] {
        open_log_file(directory.path("log").c_str());
        trace = std::make_unique<Trace>(directory.path("trace").c_str(), 0, 0);
        const SignalHold hold(font);
        raise(SIGINT);
        be_silent();
        flockfile(stdout);
        flockfile(hLogFile);
        pthread_mutex_lock(&CritSectSem.serializer);
        pthread_mutex_lock(&CritSectSem.pthreadMutex);
        raise(SIGINT);
    });
    EXPECT_EQ(end.signal, SIGINT);
    EXPECT_EQ(end.output, std::string(explanation) + incomplete_image);
    EXPECT_EQ(read_file(directory.path("log")), incomplete_image);
    EXPECT_EQ(trace_texts(directory.path("trace")), std::vector<std::string>{});
}

TEST(SignalHold, IsEndedThoughTheConsoleTakesNothing) {
    const ChildEnd end = run_in_child([] {
        int full[2] = {};
        if (pipe(full) != 0) {
            _exit(1);
        }
        dup2(full[1], STDOUT_FILENO);
        for (pollfd output = {.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
             poll(&output, 1, 0) == 1;) {
            const char filling[4096] = {};
            if (write(STDOUT_FILENO, filling, sizeof(filling)) < 0) {
                _exit(1);
            }
        }
        const SignalHold hold(font);
        raise(SIGINT);
        be_silent();
        raise(SIGINT);
    });
    EXPECT_EQ(end.signal, SIGINT);
}

TEST(SignalHold, NamesNoImageThatIsOver) {
    const ChildEnd end = run_in_child([] {
        const SignalHold hold(font);
        raise(SIGTERM);
        SignalHold::image_is_over();
        be_silent();
        raise(SIGTERM);
    });
    EXPECT_EQ(end.signal, SIGTERM);
    EXPECT_EQ(end.output, explanation);
}

TEST(SignalHold, ShowsNothingOfASerialNumberThatATerminalObeys) {
    const ChildEnd end = run_in_child([] {
        const SignalHold hold({0x3C35, "A\x1B[2J\n\xC2\x9B%n", 2});
        raise(SIGTERM);
        be_silent();
        raise(SIGTERM);
    });
    EXPECT_EQ(end.signal, SIGTERM);
    EXPECT_THAT(end.output, HasSubstr("(SN='A?[2J???%n') is incomplete."));
}

TEST(SignalHold, TakesASignalThatAnotherThreadIsGiven) {
    const ChildEnd end = run_in_child([] {
        const SignalHold hold(font);
        std::thread([] { raise(SIGPROF); }).join();
        be_silent();
        std::thread([] { raise(SIGPROF); }).join();
    });
    EXPECT_EQ(end.signal, SIGPROF);
    EXPECT_EQ(end.output, std::string(explanation) + incomplete_image);
}
