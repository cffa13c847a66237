// Contexts and device lists.
#include "libusb/objects.h"

#include <memory>
#include <vector>

using zelfsim::usb::guarded;
using zelfsim::usb::World;

extern "C" {

int libusb_init(libusb_context** context) {
    return guarded<int>(LIBUSB_ERROR_OTHER, [&] {
        World& world = World::instance();
        const std::lock_guard lock(world.mutex);
        libusb_context* added = world.add_context(context == nullptr);
        if (context != nullptr) {
            *context = added;
        }
        return int{LIBUSB_SUCCESS};
    });
}

void libusb_exit(libusb_context* context) {
    guarded<int>(0, [&] {
        World& world = World::instance();
        const std::lock_guard lock(world.mutex);
        world.remove_context(context);
        return 0;
    });
}

void libusb_set_debug(libusb_context* /*context*/, int /*level*/) {}

ssize_t libusb_get_device_list(libusb_context* context, libusb_device*** list) {
    return guarded<ssize_t>(LIBUSB_ERROR_OTHER, [&]() -> ssize_t {
        World& world = World::instance();
        const std::lock_guard lock(world.mutex);
        context = world.find(context);
        if (context == nullptr || list == nullptr) {
            return LIBUSB_ERROR_INVALID_PARAM;
        }
        const auto present = world.bus()->present(zelfsim::now());
        auto entries = std::make_unique<libusb_device*[]>(present.size() + 1);
        for (std::size_t index = 0; index < present.size(); ++index) {
            entries[index] = world.reference_present(context, *present[index]);
        }
        *list = entries.release();
        world.bus()->log().write({}, 0, "list", {}, {}, static_cast<long>(present.size()));
        return static_cast<ssize_t>(present.size());
    });
}

void libusb_free_device_list(libusb_device** list, int unreference) {
    guarded<int>(0, [&] {
        const std::unique_ptr<libusb_device*[]> owner(list);
        if (list == nullptr || unreference == 0) {
            return 0;
        }
        World& world = World::instance();
        const std::lock_guard lock(world.mutex);
        for (libusb_device** entry = list; *entry != nullptr; ++entry) {
            world.unreference(*entry);
        }
        return 0;
    });
}

libusb_device* libusb_ref_device(libusb_device* device) {
    World& world = World::instance();
    const std::lock_guard lock(world.mutex);
    if (world.find(device) != nullptr) {
        ++device->references;
    }
    return device;
}

void libusb_unref_device(libusb_device* device) {
    guarded<int>(0, [&] {
        World& world = World::instance();
        const std::lock_guard lock(world.mutex);
        world.unreference(device);
        return 0;
    });
}

uint8_t libusb_get_bus_number(libusb_device* device) {
    return device->bus_number;
}

uint8_t libusb_get_device_address(libusb_device* device) {
    return device->address;
}

}  // extern "C"
