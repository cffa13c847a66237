// Asynchronous transfers are not simulated: they can be allocated, not submitted. The event
// functions therefore behave as they do when nothing is pending.
#include "libusb/objects.h"

#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <memory>

using zelfsim::usb::World;

namespace {

constexpr timeval default_wait{60, 0};

std::chrono::microseconds duration_of(const timeval* wait) {
    return wait == nullptr
               ? std::chrono::microseconds{0}
               : std::chrono::seconds(wait->tv_sec) + std::chrono::microseconds(wait->tv_usec);
}

/// Waits as a poll without descriptors does.
int wait_in_vain(const timeval* wait) {
    if (wait != nullptr && (wait->tv_sec < 0 || wait->tv_usec < 0)) {
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    timeval rest = wait != nullptr ? *wait : timeval{};
    select(0, nullptr, nullptr, nullptr, &rest);
    return LIBUSB_SUCCESS;
}

void acquire(libusb_context* context, bool libusb_context::*flag) {
    World& world = World::instance();
    std::unique_lock lock(world.mutex);
    if (libusb_context* found = world.find(context)) {
        world.changed.wait(lock, [&] { return !(found->*flag); });
        found->*flag = true;
    }
}

void give_back(libusb_context* context, bool libusb_context::*flag) {
    World& world = World::instance();
    const std::lock_guard lock(world.mutex);
    if (libusb_context* found = world.find(context)) {
        found->*flag = false;
        world.changed.notify_all();
    }
}

}  // namespace

extern "C" {

libusb_transfer* libusb_alloc_transfer(int packets) {
    if (packets < 0) {
        return nullptr;
    }
    const std::size_t size = sizeof(libusb_transfer) + static_cast<std::size_t>(packets) *
                                                           sizeof(libusb_iso_packet_descriptor);
    return static_cast<libusb_transfer*>(std::calloc(1, size));  // NOLINT(*-no-malloc)
}

void libusb_free_transfer(libusb_transfer* transfer) {
    if (transfer == nullptr) {
        return;
    }
    if ((transfer->flags & LIBUSB_TRANSFER_FREE_BUFFER) != 0) {
        std::free(transfer->buffer);  // NOLINT(*-no-malloc)
    }
    std::free(transfer);  // NOLINT(*-no-malloc)
}

int libusb_submit_transfer(libusb_transfer* /*transfer*/) {
    return LIBUSB_ERROR_NOT_SUPPORTED;
}

int libusb_cancel_transfer(libusb_transfer* /*transfer*/) {
    return LIBUSB_ERROR_NOT_FOUND;
}

int libusb_try_lock_events(libusb_context* context) {
    World& world = World::instance();
    const std::lock_guard lock(world.mutex);
    libusb_context* found = world.find(context);
    if (found == nullptr || found->events_locked) {
        return 1;
    }
    found->events_locked = true;
    return 0;
}

void libusb_lock_events(libusb_context* context) {
    acquire(context, &libusb_context::events_locked);
}

void libusb_unlock_events(libusb_context* context) {
    give_back(context, &libusb_context::events_locked);
}

int libusb_event_handler_active(libusb_context* context) {
    World& world = World::instance();
    const std::lock_guard lock(world.mutex);
    const libusb_context* found = world.find(context);
    return found != nullptr && found->events_locked ? 1 : 0;
}

void libusb_lock_event_waiters(libusb_context* context) {
    acquire(context, &libusb_context::waiters_locked);
}

void libusb_unlock_event_waiters(libusb_context* context) {
    give_back(context, &libusb_context::waiters_locked);
}

int libusb_wait_for_event(libusb_context* context, timeval* wait) {
    World& world = World::instance();
    std::unique_lock lock(world.mutex);
    libusb_context* found = world.find(context);
    if (found == nullptr) {
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    const auto done = [&] { return !found->events_locked; };
    if (wait == nullptr) {
        world.changed.wait(lock, done);
        return 0;
    }
    return world.changed.wait_until(lock, zelfsim::now() + duration_of(wait), done) ? 0 : 1;
}

int libusb_handle_events_timeout(libusb_context* /*context*/, timeval* wait) {
    return wait_in_vain(wait);
}

int libusb_handle_events(libusb_context* /*context*/) {
    return wait_in_vain(&default_wait);
}

int libusb_handle_events_locked(libusb_context* /*context*/, timeval* wait) {
    return wait_in_vain(wait);
}

int libusb_get_next_timeout(libusb_context* /*context*/, timeval* /*wait*/) {
    return 0;
}

const libusb_pollfd** libusb_get_pollfds(libusb_context* /*context*/) {
    return nullptr;
}

void libusb_set_pollfd_notifiers(libusb_context* /*context*/, libusb_pollfd_added_cb /*added*/,
                                 libusb_pollfd_removed_cb /*removed*/, void* /*data*/) {}

}  // extern "C"
