#include "process/signal_hold.h"

#include "journal/output.h"

#include <signal.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace {

constexpr std::array held_signals = {SIGINT, SIGTERM, SIGHUP};
constexpr char explanation[] =
    "\nFinishing the component in progress, do not disconnect the device\n";

volatile sig_atomic_t first_held_signal = 0;
volatile sig_atomic_t console_is_on = 1;
std::array<struct sigaction, held_signals.size()> earlier_dispositions;

void hold(int signal_number) {
    if (first_held_signal != 0) {
        return;
    }
    first_held_signal = signal_number;
    if (console_is_on != 0) {
        const int saved_errno = errno;
        // Nothing can be done about a console that is gone.
        [[maybe_unused]] const ssize_t written =
            write(STDOUT_FILENO, explanation, sizeof(explanation) - 1);
        errno = saved_errno;
    }
}

}  // namespace

SignalHold::SignalHold() {
    console_is_on = OutputLevel >= 1 ? 1 : 0;
    struct sigaction action = {};
    action.sa_handler = hold;
    sigemptyset(&action.sa_mask);
    for (std::size_t i = 0; i < held_signals.size(); ++i) {
        sigaction(held_signals[i], nullptr, &earlier_dispositions[i]);
        if (earlier_dispositions[i].sa_handler != SIG_IGN) {
            sigaction(held_signals[i], &action, nullptr);
        }
    }
}

SignalHold::~SignalHold() {
    for (std::size_t i = 0; i < held_signals.size() && held_signal() == 0; ++i) {
        sigaction(held_signals[i], &earlier_dispositions[i], nullptr);
    }
}

int SignalHold::held_signal() {
    return first_held_signal;
}

void SignalHold::end_by_held_signal() {
    const int signal_number = held_signal();
    if (signal_number == 0) {
        return;
    }
    signal(signal_number, SIG_DFL);
    raise(signal_number);
}
