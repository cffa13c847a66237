#include "model/device/factory_image.h"

#include "common/image_checksum.h"

namespace zelfsim {

namespace {

constexpr std::size_t record_payload = 32;

class ImageWriter {
  public:
    explicit ImageWriter(std::uint16_t product_id) : checksum_(product_id) {}

    void add(std::uint8_t tag, unsigned value, const Bytes& payload) {
        Bytes record{tag, static_cast<std::uint8_t>(value >> 8U & 0xFF),
                     static_cast<std::uint8_t>(value & 0xFF)};
        record.insert(record.end(), payload.begin(), payload.end());
        checksum_.add_record(record);
        image_.push_back(static_cast<std::uint8_t>(payload.size()));
        image_.insert(image_.end(), record.begin(), record.end());
    }

    Bytes finish() {
        const std::uint16_t sum = checksum_.value();
        image_.insert(image_.end(), {0, static_cast<std::uint8_t>(sum >> 8),
                                     static_cast<std::uint8_t>(sum & 0xFF)});
        return image_;
    }

  private:
    ImageChecksum checksum_;
    Bytes image_;
};

}  // namespace

Bytes factory_image(const DeviceDescription& device, const ComponentDescription& component) {
    ImageWriter writer(device.product);
    const auto flags = static_cast<std::uint8_t>(static_cast<unsigned>(component.type) * 2 +
                                                 (component.random ? 1 : 0));
    writer.add(0xFF, 0, {component.id});
    writer.add(0xFF, 2,
               {component.id, component.version.minor, component.version.major, flags,
                component.version.build});
    std::uint32_t noise = device.product * 65537U + component.id;
    for (unsigned number = 0; number < component.records; ++number) {
        Bytes payload(record_payload);
        for (std::uint8_t& byte : payload) {
            noise = noise * 1664525U + 1013904223U;
            byte = static_cast<std::uint8_t>(noise >> 24U);
        }
        writer.add(static_cast<std::uint8_t>(component.id << 4U), number, payload);
    }
    return writer.finish();
}

}  // namespace zelfsim
