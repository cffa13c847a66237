// Preloaded into the program: allocations of FAILING_ALLOCATION_SIZE bytes throw.
#include <cstdlib>
#include <new>

namespace {

std::size_t failing_size() {
    static const char* const text = getenv("FAILING_ALLOCATION_SIZE");
    static const std::size_t size = text == nullptr ? 0 : strtoul(text, nullptr, 10);
    return size;
}

}  // namespace

void* operator new(std::size_t size) {
    // NOLINTNEXTLINE(cppcoreguidelines-no-malloc): it is the allocation itself
    void* const memory = size == failing_size() ? nullptr : malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void operator delete(void* memory) noexcept {
    free(memory);  // NOLINT(cppcoreguidelines-no-malloc): as above
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    free(memory);  // NOLINT(cppcoreguidelines-no-malloc): as above
}
