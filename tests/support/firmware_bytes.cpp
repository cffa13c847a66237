#include "support/firmware_bytes.h"

FirmwareBytes& FirmwareBytes::record(std::uint8_t tag, unsigned int value,
                                     const std::vector<std::uint8_t>& payload) {
    return lying_record(static_cast<std::uint8_t>(payload.size()), tag, value, payload);
}

FirmwareBytes& FirmwareBytes::lying_record(std::uint8_t length, std::uint8_t tag,
                                           unsigned int value,
                                           const std::vector<std::uint8_t>& payload) {
    raw({length, tag, static_cast<std::uint8_t>(value >> 8U), static_cast<std::uint8_t>(value)});
    return raw(payload);
}

FirmwareBytes& FirmwareBytes::text_record(std::uint8_t tag, unsigned int value,
                                          const std::string& payload) {
    return record(tag, value, {payload.begin(), payload.end()});
}

FirmwareBytes& FirmwareBytes::raw(const std::vector<std::uint8_t>& bytes) {
    for (const std::uint8_t byte : bytes) {
        bytes_ += static_cast<char>(byte);
    }
    return *this;
}

FirmwareBytes& FirmwareBytes::end(std::uint8_t first, std::uint8_t second) {
    return raw({0, first, second});
}
