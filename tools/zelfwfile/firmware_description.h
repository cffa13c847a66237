/// \file
/// What a firmware file's description (TOML) says.
#pragma once

#include "firmware/firmware_file.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// The information records that can be written in front of the image.
enum class InformationRecord {
    component_list,       ///< 0xFF, subtype 0
    version_list,         ///< 0xFF, subtype 1
    extended_list,        ///< 0xFF, subtype 2
    name,                 ///< 0xFc, subtype 0
    version,              ///< 0xFc, subtype 1
    version_with_build,   ///< 0xFc, subtype 2
    inline_version,       ///< 0xcF, two bytes
    inline_version_text,  ///< 0xcF, four digits
};

/// All of them.
std::vector<InformationRecord> all_information_records();

// The words of a description for what a file says; "unknown" where it has none.
std::string described_type(int type);
std::string described_control(int control);
std::string information_word(InformationRecord record);

struct FirmwareDescription {
    int product = 0;    ///< 1 to 0xFFFF
    int level = 0;      ///< major * 256 + minor, 1 to 0xFFFF
    int component = 0;  ///< 0 to 14
    int build = 0;      ///< 0 to 255
    std::string name;   ///< at most 32 characters
    FirmwareFileType type = FILE_TYPE_FIRMWARE;
    VersionMethod control = VERSION_INCREASING;
    std::vector<InformationRecord> information;
    /// The payloads of the download records, 1 to 255 bytes each.
    std::vector<std::vector<std::uint8_t>> records;
    std::optional<int> checksum;  ///< in place of the right one
};

/// Reads and checks a description; a binary image that it names is read beside it. Throws
/// `std::runtime_error` with "file:line: reason".
FirmwareDescription read_firmware_description(const std::string& path);
