/// \file
/// Firmware files as the bus tests send them, built byte by byte without the program's code.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// A firmware file under construction: component list, extended version list, then `data_records`
/// records of eight bytes.
struct FirmwareFile {
    unsigned int product = 0x3C35;
    std::string level = "0105";  ///< the header's four digits
    int component = 0;
    int build = 0;
    int type = 1;  ///< 0 unspecified, 1 firmware, 2 configuration, 3 font
    bool random = false;
    int data_records = 5;
    bool extended_list = true;
    bool right_checksum = true;
    std::vector<std::string> further_records{};  ///< whole records behind the others

    /// The records, each with its length byte.
    std::vector<std::string> records() const;
    /// The two bytes behind the end mark.
    std::string checksum() const;
    /// Records, end mark and checksum: what the device keeps.
    std::string body() const;
    std::string header() const;
    std::string bytes() const { return header() + body(); }

    /// The messages that carry the image to the device, in hexadecimal: records, then checksum.
    std::vector<std::string> messages() const;
};

/// The message that carries one record, in hexadecimal.
std::string record_message(const std::string& record);
/// The message that carries the checksum, in hexadecimal.
std::string checksum_message(const std::string& checksum);
