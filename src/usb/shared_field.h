/// \file
/// Access to plain members that a background reader and the main thread both touch.
#pragma once

#include <atomic>
#include <type_traits>

template <typename T>
T load_shared(T& field) {
    return std::atomic_ref<T>(field).load(std::memory_order_acquire);
}

template <typename T>
void store_shared(T& field, std::type_identity_t<T> value) {
    std::atomic_ref<T>(field).store(value, std::memory_order_release);
}

template <typename T>
T exchange_shared(T& field, std::type_identity_t<T> value) {
    return std::atomic_ref<T>(field).exchange(value, std::memory_order_acq_rel);
}
