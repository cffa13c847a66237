#include "support/allocation_count.h"

#include <cstddef>

namespace {

thread_local bool allocations_are_watched = false;
thread_local int allocations = 0;

}  // namespace

AllocationCount::AllocationCount() {
    allocations = 0;
    allocations_are_watched = true;
}

AllocationCount::~AllocationCount() {
    allocations_are_watched = false;
}

int AllocationCount::count() const {
    return allocations;
}

#ifdef ZELF_CODE_IS_SANITIZED  // allocations are the sanitizer's own then

bool AllocationCount::is_possible() {
    return false;
}

#else

bool AllocationCount::is_possible() {
    return true;
}

namespace {

void note() {
    allocations += allocations_are_watched ? 1 : 0;
}

}  // namespace

extern "C" {

// The C library's own names.
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);

void* malloc(std::size_t size) {
    note();
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) {
    note();
    return __libc_calloc(count, size);
}

void* realloc(void* memory, std::size_t size) {
    note();
    return __libc_realloc(memory, size);
}
}

#endif
