/// \file
/// The description and the image that a firmware file can be made from.
#pragma once

#include "zelfwfile/firmware_content.h"

#include <string>

struct ExtractedFirmware {
    std::string description;  ///< TOML
    zelf::Bytes image;        ///< of the file that the description names; empty when it names none
};

/// `image_name` is the name for the image's file. Throws `std::runtime_error` with the reason when
/// a description can't express the file, byte for byte.
ExtractedFirmware extract_firmware(const FirmwareContent& content, const std::string& image_name);
