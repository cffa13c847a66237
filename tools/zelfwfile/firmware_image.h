/// \file
/// A firmware file's bytes, from its description to the disk.
#pragma once

#include "zelfwfile/firmware_description.h"

#include <cstdint>
#include <string>
#include <vector>

/// The whole file: header, information records, download records, end mark, checksum.
std::vector<std::uint8_t> firmware_file_bytes(const FirmwareDescription& description);

/// An information record as it stands in the file, from its length byte on.
std::vector<std::uint8_t> information_record_bytes(InformationRecord record,
                                                   const FirmwareDescription& description);

/// Writes `bytes` beside `path` and renames the result to it, so that `path` holds the old file or
/// the new one, never part of it. Throws `std::runtime_error`.
void write_whole_file(const std::string& path, const std::vector<std::uint8_t>& bytes);
