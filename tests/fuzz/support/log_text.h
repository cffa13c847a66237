/// \file
/// The log of one run as text.
#pragma once

#include <cstdio>
#include <string>

/// Stands as the log file from construction to destruction. One at a time.
class LogText {
  public:
    /// `level` becomes the output level: 3 for the debug messages too.
    explicit LogText(int level);
    ~LogText();
    LogText(const LogText&) = delete;
    LogText& operator=(const LogText&) = delete;

    /// All that was logged so far, zero bytes included.
    std::string text() const;

  private:
    char* memory_ = nullptr;
    std::size_t size_ = 0;
    int earlier_level_;
};
