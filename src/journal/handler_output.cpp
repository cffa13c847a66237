#include "journal/handler_output.h"

#include "journal/output.h"
#include "journal/zelfwtrace.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

// Milliseconds.
constexpr int longest_wait = 1000;
constexpr int attempt_interval = 10;

/// A pipe that nobody empties and a stopped terminal must not keep the process alive.
bool takes_output(int descriptor) {
    pollfd output = {.fd = descriptor, .events = POLLOUT, .revents = 0};
    return poll(&output, 1, longest_wait) == 1 && (output.revents & POLLOUT) != 0;
}

void write_whole(int descriptor, const char* text) {
    std::size_t left = strlen(text);
    while (left > 0 && takes_output(descriptor)) {
        const ssize_t written = write(descriptor, text, left);
        if (written <= 0 && errno != EINTR) {
            return;
        }
        if (written > 0) {
            text += written;
            left -= static_cast<std::size_t>(written);
        }
    }
}

/// The interrupted thread itself may be inside the critical section.
bool claim_trace() {
    for (int waited = 0; pthread_mutex_trylock(&CritSectSem.pthreadMutex) != 0;
         waited += attempt_interval) {
        if (waited >= longest_wait) {
            return false;
        }
        poll(nullptr, 0, attempt_interval);
    }
    return true;
}

}  // namespace

bool is_ready_in_handler(HandlerOutput output) {
    switch (output) {
        case HandlerOutput::log:
            return hLogFile != nullptr;
        case HandlerOutput::trace:
            return trace != nullptr && claim_trace();
        case HandlerOutput::console:
            return OutputLevel >= 1;
    }
    return false;
}

void write_in_handler(HandlerOutput output, const char* text) {
    switch (output) {
        case HandlerOutput::log:
            write_whole(fileno(hLogFile), text);
            break;
        case HandlerOutput::trace:
            trace->write_text_in_handler(text);
            break;
        case HandlerOutput::console:
            write_whole(STDOUT_FILENO, text);
            break;
    }
}

void close_log_in_handler() {
    if (hLogFile != nullptr) {
        const int descriptor = fileno(hLogFile);
        hLogFile = nullptr;
        close(descriptor);
    }
}
