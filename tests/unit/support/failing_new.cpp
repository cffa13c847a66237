#include "support/failing_new.h"

#include <atomic>
#include <cstddef>
#include <new>

namespace {

std::atomic<bool> failing = false;

}  // namespace

void fail_nothrow_new(bool fail) {
    failing = fail;
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return failing ? nullptr : ::operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return failing ? nullptr : ::operator new[](size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
