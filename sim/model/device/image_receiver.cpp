#include "model/device/image_receiver.h"

#include "model/device/flash_command.h"
#include "model/device/information_record.h"

#include <string>

namespace zelfsim {

namespace {

constexpr std::uint8_t information = 0x0F;     // a tag's high nibble
constexpr std::uint8_t inline_version = 0x0F;  // a tag's low nibble

unsigned subtype(ByteView record) {
    return record[1] * 256U + record[2];
}

std::uint8_t high_nibble(ByteView record) {
    return record[0] >> 4;
}
std::uint8_t low_nibble(ByteView record) {
    return record[0] & 0x0F;
}

}  // namespace

std::optional<std::uint8_t> ImageReceiver::named_component(ByteView record) {
    if (high_nibble(record) != information) {
        return high_nibble(record);
    }
    if (record[0] != list_tag) {
        return low_nibble(record);
    }
    switch (subtype(record)) {
        case component_ids:
        case extended_list:
            return record[record_head];
        case plain_list:
            return static_cast<std::uint8_t>(record[record_head] & 0x0F);
        default:
            return std::nullopt;
    }
}

bool ImageReceiver::is_download(ByteView record) {
    return high_nibble(record) != information && low_nibble(record) != inline_version;
}

bool ImageReceiver::take(ByteView record) {
    const std::optional<std::uint8_t> named = named_component(record);
    if (named && component_ && named != component_) {
        return false;
    }
    if (is_download(record) && subtype(record) != (downloads_ & 0xFFFFU)) {
        return false;
    }
    if (!checksum_.add_record(record)) {
        return false;
    }
    if (named) {
        component_ = named;
    }
    ++records_;
    if (is_download(record)) {
        ++downloads_;
    } else {
        take_level(record);
    }
    return true;
}

void ImageReceiver::set_level(std::uint8_t major, std::uint8_t minor) {
    if (!level_) {
        level_.emplace();
    }
    level_->major = major;
    level_->minor = minor;
}

void ImageReceiver::take_level(ByteView record) {
    const ByteView payload = record.subspan(record_head);
    if (high_nibble(record) != information) {
        Version version;
        const std::string digits(payload.begin(), payload.end());
        if (payload.size() == 2) {
            set_level(payload[0], payload[1]);
        } else if (payload.size() == 4 &&
                   parse_level(digits.substr(0, 2) + "." + digits.substr(2), version)) {
            set_level(version.major, version.minor);
        }
        return;
    }
    const unsigned kind = subtype(record);
    if (record[0] != list_tag) {
        if (kind == version_subtype && payload.size() >= 2) {
            set_level(payload[1], payload[0]);
        } else if (kind == version_with_build && payload.size() >= 4) {
            set_level(payload[1], payload[0]);
            level_->build = payload[3];
        }
        return;
    }
    if (kind == plain_list && payload.size() >= 4) {
        set_level(payload[2], payload[1]);
        level_->type =
            (payload[3] & 1) != 0 ? ComponentType::configuration : ComponentType::firmware;
    } else if (kind == extended_list && payload.size() >= 5) {
        set_level(payload[2], payload[1]);
        level_->type = static_cast<ComponentType>(payload[3] >> 1 & 3);
        level_->random = (payload[3] & 1) != 0;
        level_->build = payload[4];
    }
}

}  // namespace zelfsim
