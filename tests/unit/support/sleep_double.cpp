#include "support/sleep_double.h"

#include <sys/select.h>

#include <algorithm>

namespace {

SleepDouble* current = nullptr;
thread_local bool sleeps_are_watched = false;
long skipped_from = 0;
std::vector<long> noted;

}  // namespace

SleepDouble::SleepDouble(long shortest_skipped) {
    current = this;
    sleeps_are_watched = true;
    skipped_from = shortest_skipped;
    noted.clear();
}

SleepDouble::~SleepDouble() {
    sleeps_are_watched = false;
    current = nullptr;
}

std::vector<long> SleepDouble::slept() const {
    return noted;
}

int SleepDouble::count(long milliseconds) const {
    return static_cast<int>(std::count(noted.begin(), noted.end(), milliseconds));
}

extern "C" {

// The names that the linker's --wrap gives.
int __real_select(int, fd_set*, fd_set*, fd_set*, timeval*);

int __wrap_select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional,
                  timeval* timeout) {
    if (!sleeps_are_watched || count != 0 || timeout == nullptr) {
        return __real_select(count, readable, writable, exceptional, timeout);
    }
    const auto milliseconds = static_cast<long>(timeout->tv_sec * 1000 + timeout->tv_usec / 1000);
    const int rc = milliseconds >= skipped_from
                       ? 0
                       : __real_select(count, readable, writable, exceptional, timeout);
    noted.push_back(milliseconds);
    if (current->after_sleep) {
        current->after_sleep(static_cast<int>(noted.size()));
    }
    return rc;
}
}
