/// \file
/// What differs between two firmware files.
#pragma once

#include "zelfwfile/firmware_content.h"

#include <string>

/// A line for each difference; empty when the files are the same, byte for byte.
std::string firmware_differences(const FirmwareContent& one, const FirmwareContent& other);
