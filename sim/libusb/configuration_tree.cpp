#include "libusb/configuration_tree.h"

#include "model/device/descriptors.h"

#include <algorithm>
#include <optional>

namespace zelfsim::usb {

namespace {

constexpr std::size_t configuration_size = 9;
constexpr std::size_t interface_size = 9;
constexpr std::size_t endpoint_size = 7;

/// Walks the descriptors one by one.
class Walk {
  public:
    explicit Walk(const Bytes& bytes) : bytes_(bytes) {}

    /// The next descriptor; empty at the end. A length that does not fit ends the walk.
    ByteView next() {
        const std::size_t left = bytes_.size() - at_;
        if (left < 2 || bytes_[at_] < 2 || bytes_[at_] > left) {
            return {};
        }
        const ByteView found(&bytes_[at_], bytes_[at_]);
        at_ += found.size();
        return found;
    }

  private:
    const Bytes& bytes_;
    std::size_t at_ = 0;
};

libusb_interface_descriptor setting_of(ByteView bytes) {
    libusb_interface_descriptor setting{};
    setting.bLength = bytes[0];
    setting.bDescriptorType = bytes[1];
    setting.bInterfaceNumber = bytes[2];
    setting.bAlternateSetting = bytes[3];
    setting.bInterfaceClass = bytes[5];
    setting.bInterfaceSubClass = bytes[6];
    setting.bInterfaceProtocol = bytes[7];
    setting.iInterface = bytes[8];
    return setting;
}

libusb_endpoint_descriptor endpoint_of(ByteView bytes) {
    libusb_endpoint_descriptor endpoint{};
    endpoint.bLength = bytes[0];
    endpoint.bDescriptorType = bytes[1];
    endpoint.bEndpointAddress = bytes[2];
    endpoint.bmAttributes = bytes[3];
    endpoint.wMaxPacketSize = static_cast<std::uint16_t>(bytes[4] | bytes[5] << 8);
    endpoint.bInterval = bytes[6];
    return endpoint;
}

/// Class descriptors that follow an interface are its extra bytes.
void add_extra(libusb_interface_descriptor& setting, ByteView bytes) {
    if (setting.extra == nullptr) {
        setting.extra = bytes.data();
    }
    setting.extra_length += static_cast<int>(bytes.size());
}

void fill_head(ConfigurationTree& tree) {
    const Bytes& bytes = tree.bytes;
    tree.bLength = bytes[0];
    tree.bDescriptorType = bytes[1];
    tree.wTotalLength = static_cast<std::uint16_t>(bytes[2] | bytes[3] << 8);
    tree.bConfigurationValue = bytes[5];
    tree.iConfiguration = bytes[6];
    tree.bmAttributes = bytes[7];
    tree.MaxPower = bytes[8];
}

/// Sets the pointers, now that nothing grows any more.
void connect(ConfigurationTree& tree) {
    const libusb_endpoint_descriptor* endpoint = tree.endpoints.data();
    for (libusb_interface_descriptor& setting : tree.settings) {
        setting.endpoint = endpoint;
        endpoint += setting.bNumEndpoints;
        tree.interfaces.push_back({&setting, 1});
    }
    tree.bNumInterfaces = static_cast<std::uint8_t>(tree.interfaces.size());
    tree.interface = tree.interfaces.data();
}

}  // namespace

std::unique_ptr<ConfigurationTree> build_tree(const Bytes& bytes) {
    auto tree = std::make_unique<ConfigurationTree>();
    tree->bytes = bytes;
    Walk walk(tree->bytes);
    if (walk.next().size() != configuration_size) {
        return nullptr;
    }
    fill_head(*tree);
    for (ByteView found = walk.next(); !found.empty(); found = walk.next()) {
        if (found[1] == descriptor_interface && found.size() >= interface_size) {
            tree->settings.push_back(setting_of(found));
        } else if (tree->settings.empty()) {
            return nullptr;
        } else if (found[1] == descriptor_endpoint && found.size() >= endpoint_size) {
            tree->endpoints.push_back(endpoint_of(found));
            ++tree->settings.back().bNumEndpoints;
        } else {
            add_extra(tree->settings.back(), found);
        }
    }
    connect(*tree);
    return tree;
}

}  // namespace zelfsim::usb
