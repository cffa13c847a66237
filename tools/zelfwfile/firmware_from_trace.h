/// \file
/// Firmware files, rebuilt from the messages that carried them to devices.
#pragma once

#include "zelfwfile/trace_images.h"

#include <string>
#include <vector>

struct RebuiltFirmware {
    std::string name;   ///< of the file, without directory; ends in ".part" when it is not whole
    zelf::Bytes bytes;  ///< empty when there is nothing to write
    bool is_whole = false;
    bool is_redacted = false;
    std::string words;                 ///< what it is, or why it is not whole
    std::vector<std::string> given;    ///< where its parts are from
    std::vector<std::string> guessed;  ///< what the trace does not tell, and what was taken
};

/// Each file once, whole if one of its images is. An image that is not whole ends without end mark
/// and checksum.
std::vector<RebuiltFirmware> rebuilt_firmware(const std::vector<SentImage>& images);
