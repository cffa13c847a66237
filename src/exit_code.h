/// \file
/// The exit codes of a run.
#pragma once

/// The program's exit codes; their texts stand in usage.cpp.
enum ExitCode {
    EXIT_OK = 0,
    EXIT_USAGE = 1,
    EXIT_NOT_ROOT = 2,
    EXIT_NO_USB_LIBRARY = 3,
    EXIT_UNEXPECTED_ERROR = 4,
    EXIT_NO_DEVICES = 5,
    EXIT_NOTHING_UPDATED = 6,
    EXIT_NOTHING_RESET = 7,
    EXIT_DEVICE_FAILED = 8,
    EXIT_DEVICE_DISCONNECTED = 9,
    EXIT_UPDATE_FAILED = 10,
    EXIT_FILE_CORRUPTED = 11,
    EXIT_SEGMENTATION_FAULT = 12,
    EXIT_NO_OUTPUT_FILE = 13,
};
