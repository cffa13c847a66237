/// \file
/// The checksum that a peripheral expects at the end of a firmware image. Shared by the simulated
/// peripherals, which check it, and by the tool that builds firmware files, which writes it.
#pragma once

#include <cstdint>
#include <span>

/// Checksum of one image: CRC-16/CCITT-FALSE (polynomial 0x1021, start 0xFFFF, no reflection, no
/// final exclusive-or) over the product ID as four lower-case hexadecimal digits and then over
/// every record in order: length byte, tag, the two value bytes, payload.
///
/// Two fields that name the component are taken as zero, because a host may redirect an image to
/// another component while it sends it: the tag's high nibble, unless it is 15 (an information
/// record), and, for tag 0xFF with first value byte 0, the low nibble of the first payload byte.
class ImageChecksum {
  public:
    explicit ImageChecksum(std::uint16_t product_id);

    /// Adds one record, given without its length byte: tag, two value bytes, 1 to 255 payload
    /// bytes. False, and nothing added, when the size is outside 4 to 258.
    bool add_record(std::span<const std::uint8_t> record);

    /// The checksum so far; a file and the checksum message carry the high byte first.
    std::uint16_t value() const { return crc_; }

  private:
    void add(std::uint8_t byte);

    std::uint16_t crc_;
};
