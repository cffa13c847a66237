// Preloaded into the program: allocations of FAILING_ALLOCATION_SIZE bytes fail, so that the C++
// library, which is part of the program, throws.
#include <cerrno>
#include <cstddef>
#include <cstdlib>

extern "C" void* __libc_malloc(std::size_t size);

namespace {

std::size_t failing_size = 0;

// Not at the first allocation: that comes before the environment is there.
[[gnu::constructor]] void read_failing_size() {
    const char* const text = getenv("FAILING_ALLOCATION_SIZE");
    failing_size = text == nullptr ? 0 : strtoul(text, nullptr, 10);
}

}  // namespace

extern "C" void* malloc(std::size_t size) {
    if (size != 0 && size == failing_size) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_malloc(size);
}
