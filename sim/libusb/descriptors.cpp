// Descriptors of devices, which do not need an open handle.
#include "model/device/descriptors.h"

#include "libusb/configuration_tree.h"
#include "libusb/objects.h"

#include <memory>

using zelfsim::usb::build_tree;
using zelfsim::usb::ConfigurationTree;
using zelfsim::usb::guarded;
using zelfsim::usb::World;

namespace {

int give_configuration(libusb_device* device, libusb_config_descriptor** configuration) {
    zelfsim::Bytes bytes;
    {
        World& world = World::instance();
        const std::lock_guard lock(world.mutex);
        if (world.find(device) == nullptr || configuration == nullptr) {
            return LIBUSB_ERROR_INVALID_PARAM;
        }
        bytes = device->configuration;
    }
    std::unique_ptr<ConfigurationTree> tree = build_tree(bytes);
    if (!tree) {
        return LIBUSB_ERROR_IO;
    }
    *configuration = tree.release();
    return LIBUSB_SUCCESS;
}

}  // namespace

extern "C" {

int libusb_get_device_descriptor(libusb_device* device, libusb_device_descriptor* descriptor) {
    World& world = World::instance();
    const std::lock_guard lock(world.mutex);
    if (world.find(device) == nullptr || descriptor == nullptr) {
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    *descriptor = device->descriptor;
    return LIBUSB_SUCCESS;
}

int libusb_get_config_descriptor(libusb_device* device, uint8_t index,
                                 libusb_config_descriptor** configuration) {
    return guarded<int>(LIBUSB_ERROR_OTHER, [&]() -> int {
        return index == 0 ? give_configuration(device, configuration) : LIBUSB_ERROR_NOT_FOUND;
    });
}

int libusb_get_config_descriptor_by_value(libusb_device* device, uint8_t value,
                                          libusb_config_descriptor** configuration) {
    return guarded<int>(LIBUSB_ERROR_OTHER, [&]() -> int {
        return value == zelfsim::configuration_value ? give_configuration(device, configuration)
                                                     : LIBUSB_ERROR_NOT_FOUND;
    });
}

int libusb_get_active_config_descriptor(libusb_device* device,
                                        libusb_config_descriptor** configuration) {
    return libusb_get_config_descriptor(device, 0, configuration);
}

void libusb_free_config_descriptor(libusb_config_descriptor* configuration) {
    const std::unique_ptr<ConfigurationTree> owner(static_cast<ConfigurationTree*>(configuration));
}

int libusb_get_max_packet_size(libusb_device* device, unsigned char endpoint) {
    return guarded<int>(LIBUSB_ERROR_OTHER, [&]() -> int {
        World& world = World::instance();
        const std::lock_guard lock(world.mutex);
        if (world.find(device) == nullptr) {
            return LIBUSB_ERROR_INVALID_PARAM;
        }
        const auto tree = build_tree(device->configuration);
        for (const libusb_endpoint_descriptor& found : tree->endpoints) {
            if (found.bEndpointAddress == endpoint) {
                return found.wMaxPacketSize;
            }
        }
        return LIBUSB_ERROR_NOT_FOUND;
    });
}

}  // extern "C"
