/// \file
/// The listing of one firmware file, record by record, on console and log.
#pragma once

#include <cstdio>

/// Lists header, records and checksum of an open firmware file, from its start; ends at the first
/// thing that is not as it should be.
void display_firmware_stream(FILE* stream);
