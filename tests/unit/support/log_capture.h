/// \file
/// The log file of a test, with debug messages, as text.
#pragma once

#include "journal/output.h"

#include <string>

class LogCapture {
  public:
    /// Messages of level 0 carry no prefix, debug messages "<level>:".
    explicit LogCapture(int level = 3);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// All that was logged so far.
    std::string text() const;
    /// How often `line` was logged.
    int count(const std::string& line) const;

  private:
    int old_level;
};
