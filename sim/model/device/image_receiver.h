/// \file
/// An image on its way in: what its records say, and whether they belong together.
#pragma once

#include "common/image_checksum.h"
#include "model/device/basics.h"
#include "model/store/device_state.h"

#include <cstdint>
#include <optional>

namespace zelfsim {

/// The version that an image carries for its component.
struct CarriedLevel {
    std::uint8_t major = 0;
    std::uint8_t minor = 0;
    std::optional<std::uint8_t> build;
    std::optional<ComponentType> type;
    std::optional<bool> random;
};

class ImageReceiver {
  public:
    explicit ImageReceiver(std::uint16_t product_id) : checksum_(product_id) {}

    /// The component that a record (tag, two value bytes, payload) names, if it names one.
    static std::optional<std::uint8_t> named_component(ByteView record);
    /// Whether a record carries image data, as opposed to information.
    static bool is_download(ByteView record);

    /// Takes the next record; false when it names another component than those before or is a
    /// download record out of turn, and nothing is taken then.
    bool take(ByteView record);

    std::optional<std::uint8_t> component() const { return component_; }
    const std::optional<CarriedLevel>& level() const { return level_; }
    unsigned records() const { return records_; }
    unsigned downloads() const { return downloads_; }
    std::uint16_t checksum() const { return checksum_.value(); }

  private:
    void take_level(ByteView record);
    void set_level(std::uint8_t major, std::uint8_t minor);

    ImageChecksum checksum_;
    std::optional<std::uint8_t> component_;
    std::optional<CarriedLevel> level_;
    unsigned records_ = 0;
    unsigned downloads_ = 0;
};

}  // namespace zelfsim
