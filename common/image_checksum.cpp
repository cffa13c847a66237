#include "common/image_checksum.h"

#include <cstddef>

namespace {

constexpr std::uint16_t start = 0xFFFF;
constexpr std::uint16_t polynomial = 0x1021;
constexpr std::size_t record_head = 3;  // tag and two value bytes
constexpr std::size_t payload_max = 255;
constexpr std::uint8_t list_tag = 0xFF;
constexpr std::uint8_t information_nibble = 0xF0;

}  // namespace

ImageChecksum::ImageChecksum(std::uint16_t product_id) : crc_(start) {
    constexpr char digits[] = "0123456789abcdef";
    for (int shift = 12; shift >= 0; shift -= 4) {
        add(static_cast<std::uint8_t>(digits[(product_id >> shift) & 0x0F]));
    }
}

bool ImageChecksum::add_record(std::span<const std::uint8_t> record) {
    if (record.size() <= record_head || record.size() > record_head + payload_max) {
        return false;
    }
    const std::uint8_t tag = record[0];
    const bool information = (tag & 0xF0) == information_nibble;
    const bool list = tag == list_tag && record[1] == 0;
    add(static_cast<std::uint8_t>(record.size() - record_head));
    add(information ? tag : static_cast<std::uint8_t>(tag & 0x0F));
    add(record[1]);
    add(record[2]);
    add(list ? static_cast<std::uint8_t>(record[3] & 0xF0) : record[3]);
    for (const std::uint8_t byte : record.subspan(record_head + 1)) {
        add(byte);
    }
    return true;
}

void ImageChecksum::add(std::uint8_t byte) {
    unsigned crc = crc_ ^ (static_cast<unsigned>(byte) << 8U);
    for (int bit = 0; bit < 8; ++bit) {
        crc = (crc & 0x8000U) != 0 ? (crc << 1U) ^ polynomial : crc << 1U;
    }
    crc_ = static_cast<std::uint16_t>(crc);
}
