/// \file
/// A firmware file taken apart, as far as it can be.
#pragma once

#include "common/bytes.h"
#include "firmware/firmware_file.h"

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

struct ContentRecord {
    std::size_t offset = 0;  ///< of its length byte
    int tag = 0;
    int value = 0;
    zelf::Bytes payload;

    bool is_information() const { return tag >> 4 == information_nibble; }
    /// "ff0002": tag and value.
    std::string number() const;
    /// "extended list", "data"...
    std::string meaning() const;
};

struct FirmwareContent {
    zelf::Bytes bytes;   ///< the whole file
    std::string header;  ///< its first eight bytes, or fewer
    std::vector<ContentRecord> records;
    std::size_t end = 0;  ///< behind the last whole record
    std::optional<int> checksum;
    int right_checksum = 0;
    std::string trouble;  ///< why the file is not whole; empty when it is, whatever its checksum
    // What the updater reads of it.
    int product = -1;
    int level = -1;
    int version_digit = 0;
    int component = 0;
    int build = 0;
    int type = 0;     ///< a FirmwareFileType
    int control = 0;  ///< a VersionMethod
    std::optional<std::string> name;

    /// Bytes that a device stores: payloads of the records that are no information.
    std::size_t image_size() const;
    std::size_t image_records() const;
};

/// Throws `std::runtime_error` when the file can't be opened or has more than 64 MiB.
FirmwareContent read_firmware_content(const std::string& path);

/// "01.05"
std::string level_text(int level);
/// "3c35"
std::string four_digits(int value);
