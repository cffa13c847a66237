/// \file
/// Builds firmware files byte by byte, whole ones and broken ones, without the program's code.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// The bytes of a firmware file under construction.
class FirmwareBytes {
  public:
    /// Starts with the eight characters of the header, or with fewer for a broken file.
    explicit FirmwareBytes(const std::string& header) : bytes_(header) {}

    FirmwareBytes& record(std::uint8_t tag, unsigned int value,
                          const std::vector<std::uint8_t>& payload);
    /// A record whose length byte claims `length` bytes.
    FirmwareBytes& lying_record(std::uint8_t length, std::uint8_t tag, unsigned int value,
                                const std::vector<std::uint8_t>& payload);
    FirmwareBytes& text_record(std::uint8_t tag, unsigned int value, const std::string& payload);
    FirmwareBytes& raw(const std::vector<std::uint8_t>& bytes);
    /// Length byte 0 and the checksum bytes.
    FirmwareBytes& end(std::uint8_t first = 0xAB, std::uint8_t second = 0xCD);

    const std::string& bytes() const { return bytes_; }
    /// Stands for its bytes wherever a file's content is asked for.
    operator const std::string&() const { return bytes_; }

  private:
    std::string bytes_;
};
