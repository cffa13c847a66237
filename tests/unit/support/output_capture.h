/// \file
/// What the program's code writes to console and log.
#pragma once

#include "support/temporary_directory.h"

#include <string>

/// What a call wrote.
struct WrittenOutput {
    std::string console;
    std::string log;
};

/// Catches the console and, in a log file of its own, the log.
class OutputCapture {
  public:
    OutputCapture();
    ~OutputCapture();
    OutputCapture(const OutputCapture&) = delete;
    OutputCapture& operator=(const OutputCapture&) = delete;

    /// Ends the capture.
    WrittenOutput take();

  private:
    TemporaryDirectory directory_;
    bool taken_ = false;
};
