#include "process/signal_hold.h"

#include "journal/output.h"
#include "support/child_process.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace {

constexpr char explanation[] =
    "\nFinishing the component in progress, do not disconnect the device\n";

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
        { const SignalHold hold; }
        raise(GetParam());
    });
    EXPECT_EQ(end.signal, GetParam());
    EXPECT_EQ(end.output, "");
}

TEST_P(HeldSignals, AreHeldBackInScope) {
    const ChildEnd end = run_in_child([] {
        EXPECT_EQ(SignalHold::held_signal(), 0);
        const SignalHold hold;
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
            const SignalHold hold;
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
            const SignalHold hold;
            raise(GetParam());
        }
        raise(SIGINT);
        raise(SIGTERM);
        {
            const SignalHold next;
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
        { const SignalHold hold; }
        struct sigaction after = {};
        sigaction(GetParam(), nullptr, &after);
        EXPECT_EQ(after.sa_handler, &our_handler);
        EXPECT_NE(after.sa_flags & SA_RESTART, 0);
        signal(GetParam(), SIG_DFL);
        { const SignalHold hold; }
        EXPECT_TRUE(has_default_disposition(GetParam()));
        _exit(testing::Test::HasFailure() ? 1 : 7);
    });
    EXPECT_EQ(end.exit_code, 7);
}

TEST_P(HeldSignals, StayIgnoredWhenTheyWere) {
    const ChildEnd end = run_in_child([] {
        signal(GetParam(), SIG_IGN);
        {
            const SignalHold hold;
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
        const SignalHold hold;
        raise(GetParam());
        _exit(SignalHold::held_signal());
    });
    EXPECT_EQ(end.exit_code, GetParam());
    EXPECT_EQ(end.output, "");
}

INSTANTIATE_TEST_SUITE_P(Each, HeldSignals, testing::Values(SIGINT, SIGTERM, SIGHUP),
                         [](const auto& given) {
                             return given.param == SIGINT    ? "Interrupt"
                                    : given.param == SIGTERM ? "Terminate"
                                                             : "HangUp";
                         });

TEST(SignalHold, RemembersTheFirstSignalAndExplainsOnce) {
    const ChildEnd end = run_in_child([] {
        const SignalHold hold;
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
        const SignalHold hold;
        errno = ENOENT;
        raise(SIGHUP);
        _exit(errno == ENOENT ? SignalHold::held_signal() : 2);
    });
    EXPECT_EQ(end.exit_code, SIGHUP);
}

TEST(SignalHold, LeavesOtherSignalsAlone) {
    const ChildEnd end = run_in_child([] {
        const SignalHold hold;
        raise(SIGUSR1);
    });
    EXPECT_EQ(end.signal, SIGUSR1);
}

TEST(SignalHold, EndsNothingWithoutASignal) {
    const ChildEnd end = run_in_child([] {
        { const SignalHold hold; }
        SignalHold::end_by_held_signal();
        _exit(7);
    });
    EXPECT_EQ(end.exit_code, 7);
}
