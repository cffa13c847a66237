#include "time/virtual_clock.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace zelfsim::virtual_time {

namespace {

constexpr const char* file = "virtual-clock";

/// The instant in the file, as memory that outlives the process; null when there can be none.
Instant* map_instant(const char* directory) {
    char name[4096];
    mkdir(directory, 0755);
    std::snprintf(name, sizeof name, "%s/%s", directory, file);
    const int descriptor = open(name, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (descriptor < 0) {
        return nullptr;
    }
    void* memory = MAP_FAILED;
    if (ftruncate(descriptor, sizeof(Instant)) == 0) {
        memory = mmap(nullptr, sizeof(Instant), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    }
    close(descriptor);
    return memory == MAP_FAILED ? nullptr : static_cast<Instant*>(memory);
}

}  // namespace

void VirtualClock::start(const char* directory) {
    constexpr Instant latest = 4'000'000'000 * second;
    if (directory != nullptr && *directory != '\0') {
        kept_ = map_instant(directory);
    }
    if (kept_ != nullptr) {
        now_ = std::clamp(*kept_, origin, latest);
    }
    begin_ = now_;
}

void VirtualClock::go_on_to(Instant instant) {
    now_ = std::max(now_, instant);
    if (kept_ != nullptr) {
        // At once, or not at all: the process may be killed here. A page's first bytes are aligned,
        // which the type alone does not say on 32-bit machines.
        using KeptInstant __attribute__((aligned(8))) = Instant;
        KeptInstant* const kept = kept_;
        __atomic_store_n(kept, now_, __ATOMIC_RELAXED);
    }
}

}  // namespace zelfsim::virtual_time
