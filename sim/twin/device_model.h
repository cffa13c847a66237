/// \file
/// A device that is told what a real one was told, to see what it would have answered.
#pragma once

#include "model/device/flash_interface.h"

#include <memory>
#include <optional>
#include <vector>

namespace zelfsim {

class DeviceModel {
  public:
    /// `device` outlives this.
    explicit DeviceModel(const DeviceDescription& device) : device_(device) { begin(); }

    CommandResult take(const Bytes& message);
    void restart();
    /// Undoes the last message.
    void forget_last();

    bool stoppable() const { return parts_->flash.stoppable(); }
    Bytes data() { return parts_->flash.next_data(); }

  private:
    struct Parts {
        explicit Parts(const DeviceDescription& device)
            : state(factory_state(device)), flash(device, state, store) {}
        DeviceState state;
        DeviceStore store;
        FlashInterface flash;
    };

    void begin() { parts_ = std::make_unique<Parts>(device_); }

    const DeviceDescription& device_;
    std::unique_ptr<Parts> parts_;
    std::vector<std::optional<Bytes>> taken_;  ///< none for a restart
};

}  // namespace zelfsim
