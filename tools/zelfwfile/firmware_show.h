/// \file
/// Everything that a firmware file holds, as text or JSON.
#pragma once

#include "zelfwfile/firmware_content.h"

#include <string>
#include <string_view>

std::string shown_as_text(const std::string& path, const FirmwareContent& content);
/// In quotes, without control characters and bytes that are no UTF-8.
std::string quoted_text(std::string_view text);

/// One object on several lines.
std::string shown_as_json(const std::string& path, const FirmwareContent& content);
