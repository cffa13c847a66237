#include "twin/device_model.h"

namespace zelfsim {

CommandResult DeviceModel::take(const Bytes& message) {
    taken_.emplace_back(message);
    return parts_->flash.carry_out(parse_command(message));
}

void DeviceModel::restart() {
    taken_.emplace_back(std::nullopt);
    parts_->flash.restart();
}

void DeviceModel::forget_last() {
    taken_.pop_back();
    begin();
    for (const auto& message : taken_) {
        if (message) {
            parts_->flash.carry_out(parse_command(*message));
        } else {
            parts_->flash.restart();
        }
    }
}

}  // namespace zelfsim
