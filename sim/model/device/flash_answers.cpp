#include "model/device/flash_answers.h"

#include "model/device/information_record.h"
#include "model/store/device_store.h"

#include <algorithm>

namespace zelfsim {

namespace {

constexpr std::uint8_t last_block = 0x01;

std::uint8_t flags_of(const ComponentState& component) {
    return static_cast<std::uint8_t>(static_cast<unsigned>(component.current.type) * 2 +
                                     (component.current.random ? 1 : 0));
}

/// An information record with the data report's two leading bytes.
Bytes data_report(std::uint8_t tag, std::uint8_t subtype, const Bytes& payload) {
    Bytes bytes{last_block, 0, static_cast<std::uint8_t>(payload.size()), tag, 0, subtype};
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
}

/// The list's entries, cut to `size` bytes each. A reader stops at an entry of zeros, so one stands
/// last.
Bytes entries(const DeviceState& state, std::size_t size) {
    constexpr std::size_t compared = 4;
    std::vector<Bytes> rows;
    for (const ComponentState& component : state.components) {
        const Version version = reported_version(component);
        Bytes row{component.id, version.minor, version.major, flags_of(component), version.build};
        row.resize(size);
        rows.push_back(row);
    }
    const auto is_zero = [](const Bytes& row) {
        return std::all_of(row.begin(), row.begin() + compared,
                           [](std::uint8_t byte) { return byte == 0; });
    };
    std::stable_partition(rows.begin(), rows.end(),
                          [&](const Bytes& row) { return !is_zero(row); });
    Bytes joined;
    for (const Bytes& row : rows) {
        joined.insert(joined.end(), row.begin(), row.end());
    }
    return joined;
}

std::uint8_t feature_bits(const FlashDescription& flash) {
    constexpr unsigned multiple_components = 0x80;
    constexpr unsigned extended_versions = 0x40;
    constexpr unsigned read_all_records = 0x10;
    if (flash.features) {
        return *flash.features;
    }
    return static_cast<std::uint8_t>((flash.components.size() > 1 ? multiple_components : 0) |
                                     (flash.list == ListKind::extended ? extended_versions : 0) |
                                     (flash.read_records ? read_all_records : 0));
}

}  // namespace

Status plain_status(std::uint8_t flags) {
    return {flags};
}

Status level_status(const DeviceState& state) {
    const Version current = reported_version(state.components.front());
    const Version& previous = state.previous;
    return {level_present | completed,
            current.minor,
            current.major,
            previous.minor,
            previous.major,
            current.build,
            previous.build};
}

Status device_info_status(const FlashDescription& flash) {
    return {device_info_present | completed, flash.device_type, flash.device_id, flash.command_set,
            feature_bits(flash)};
}

Bytes version_data(const ComponentState& component) {
    const Version version = reported_version(component);
    return data_report(static_cast<std::uint8_t>(0xF0 | component.id), version_subtype,
                       {version.minor, version.major});
}

Bytes plain_list_data(const DeviceState& state) {
    constexpr std::size_t entry = 4;
    return data_report(list_tag, plain_list, entries(state, entry));
}

Bytes extended_list_data(const DeviceState& state) {
    constexpr std::size_t entry = 5;
    return data_report(list_tag, extended_list, entries(state, entry));
}

Bytes record_block(const Bytes& image, std::size_t& at) {
    constexpr std::size_t end = 3;  // zero length, checksum
    const std::size_t left = image.size() - std::min(at, image.size());
    const bool record = left > 0 && image[at] != 0 && left >= stored_record_head + image[at];
    const std::size_t size = record ? stored_record_head + image[at] : std::min(left, end);
    Bytes block{record ? std::uint8_t{0} : last_block, 0};
    const auto begin = image.begin() + static_cast<std::ptrdiff_t>(image.size() - left);
    block.insert(block.end(), begin, begin + static_cast<std::ptrdiff_t>(size));
    if (record) {
        at += size;
    }
    return block;
}

}  // namespace zelfsim
