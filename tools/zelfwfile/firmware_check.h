/// \file
/// The check whether a firmware file is whole.
#pragma once

#include <string>

struct FirmwareVerdict {
    bool whole = false;
    std::string text;  ///< what the file is, or what is wrong with it and at which offset
};

/// Reads the file to its last byte. It is whole when its header parses, every record is complete,
/// all records are of one component and of the header's level, an end mark and the right checksum
/// follow, and nothing stands behind them.
FirmwareVerdict check_firmware_file(const std::string& path);
