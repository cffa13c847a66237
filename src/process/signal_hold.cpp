#include "process/signal_hold.h"

#include "journal/handler_output.h"
#include "process/wire_silence.h"

#include <signal.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

constexpr char explanation[] =
    "\nFinishing the component in progress, do not disconnect the device\n";
constexpr std::uint32_t patience = 3000;  // milliseconds

// All of these are used in the handler.
std::atomic<int> first_held_signal{0};
std::atomic<std::uint32_t> held_since{0};
std::atomic<bool> image_is_incomplete{false};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);
/// Changes only while `image_is_incomplete` is not set.
char incomplete_image[512];

std::array<struct sigaction, NSIG> earlier_dispositions;

/// Signals that end the process, are not the program's own fault, and can be handled. SIGPIPE and
/// SIGXFSZ are ignored throughout the run.
bool ends_the_process(int signal_number) {
    switch (signal_number) {
        case SIGHUP:
        case SIGINT:
        case SIGQUIT:
        case SIGUSR1:
        case SIGUSR2:
        case SIGALRM:
        case SIGTERM:
        case SIGSTKFLT:
        case SIGXCPU:
        case SIGVTALRM:
        case SIGPROF:
        case SIGIO:
        case SIGPWR:
            return true;
        default:
            return signal_number >= SIGRTMIN && signal_number <= SIGRTMAX;
    }
}

/// Calls `action` with each signal to hold.
template <typename Action>
void for_each_signal(Action action) {
    for (int signal_number = 1; signal_number < NSIG; ++signal_number) {
        if (ends_the_process(signal_number)) {
            action(signal_number, earlier_dispositions[static_cast<std::size_t>(signal_number)]);
        }
    }
}

void end_by_signal(int signal_number) {
    signal(signal_number, SIG_DFL);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, signal_number);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    raise(signal_number);
}

void end_in_mid_image(int signal_number) {
    if (image_is_incomplete.exchange(false)) {
        for (const auto output :
             {HandlerOutput::log, HandlerOutput::trace, HandlerOutput::console}) {
            if (is_ready_in_handler(output)) {
                write_in_handler(output, incomplete_image);
            }
        }
    }
    end_by_signal(signal_number);
}

/// The program `timeout`, and a shell whose terminal goes away, send the same signal twice at once:
/// the silence counts from the first one only.
bool is_stuck() {
    return std::min(wire_silence(), steady_milliseconds() - held_since) >= patience;
}

void hold(int signal_number) {
    const int saved_errno = errno;
    int none = 0;
    if (first_held_signal == 0) {
        held_since = steady_milliseconds();
    }
    if (first_held_signal.compare_exchange_strong(none, signal_number)) {
        if (is_ready_in_handler(HandlerOutput::console)) {
            write_in_handler(HandlerOutput::console, explanation);
        }
    } else if (is_stuck()) {
        end_in_mid_image(signal_number);
    }
    errno = saved_errno;
}

/// A terminal obeys control characters, and the serial number comes from the device.
void hide_what_is_not_printable(char* text) {
    std::replace_if(
        text, text + strlen(text), [](char c) { return c < ' ' || c > '~'; }, '?');
}

void prepare_text(const ComponentInProgress& component) {
    char serial_number[64];
    snprintf(serial_number, sizeof(serial_number), "%s", component.serial_number);
    hide_what_is_not_printable(serial_number);
    snprintf(incomplete_image, sizeof(incomplete_image),
             "\nStopped while nothing moved on the wire: the image of PID: %04x COMP: %d (SN='%s') "
             "is incomplete. Leave the device plugged in and run the same update again\n",
             static_cast<unsigned int>(component.product_id), component.component, serial_number);
}

}  // namespace

SignalHold::SignalHold(const ComponentInProgress& component) {
    note_wire_movement();
    prepare_text(component);
    image_is_incomplete = true;
    struct sigaction action = {};
    action.sa_handler = hold;
    sigemptyset(&action.sa_mask);
    for_each_signal([&action](int signal_number, struct sigaction& earlier) {
        sigaction(signal_number, nullptr, &earlier);
        if (earlier.sa_handler == SIG_DFL) {
            sigaction(signal_number, &action, nullptr);
        }
    });
}

SignalHold::~SignalHold() {
    image_is_over();
    for_each_signal([](int signal_number, const struct sigaction& earlier) {
        if (held_signal() == 0 && earlier.sa_handler == SIG_DFL) {
            sigaction(signal_number, &earlier, nullptr);
        }
    });
}

void SignalHold::image_is_over() {
    image_is_incomplete = false;
}

int SignalHold::held_signal() {
    return first_held_signal;
}

void SignalHold::end_by_held_signal() {
    const int signal_number = held_signal();
    if (signal_number != 0) {
        end_by_signal(signal_number);
    }
}
