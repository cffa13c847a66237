// Preloaded into the program: the first allocation of FAULTING_ALLOCATION_SIZE bytes faults inside
// the allocator, whose lock then stays taken for ever.
#include <sched.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

// The C library's own names.
extern "C" void* __libc_malloc(std::size_t size);
extern "C" void __libc_free(void* memory);

namespace {

std::atomic<bool> in_use{false};
std::size_t faulting_size = 0;

// Not at the first allocation: that comes before the environment is there.
[[gnu::constructor]] void read_faulting_size() {
    const char* const text = getenv("FAULTING_ALLOCATION_SIZE");
    faulting_size = text == nullptr ? 0 : strtoul(text, nullptr, 10);
}

class AllocatorLock {
  public:
    AllocatorLock() {
        while (in_use.exchange(true)) {
            sched_yield();
        }
    }
    ~AllocatorLock() { in_use = false; }
    AllocatorLock(const AllocatorLock&) = delete;
    AllocatorLock& operator=(const AllocatorLock&) = delete;
};

}  // namespace

extern "C" void* malloc(std::size_t size) {
    const AllocatorLock lock;
    if (size != 0 && size == faulting_size) {
        volatile std::uintptr_t address = 0x102A;
        *reinterpret_cast<volatile char*>(address) = 'x';
    }
    return __libc_malloc(size);
}

extern "C" void free(void* memory) {
    const AllocatorLock lock;
    __libc_free(memory);
}
