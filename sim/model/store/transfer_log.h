/// \file
/// The record of everything that happens on the bus.
#pragma once

#include "common/file_access.h"
#include "model/device/basics.h"

#include <string>
#include <string_view>

namespace zelfsim {

class TransferLog {
  public:
    /// Records nothing.
    TransferLog() = default;
    /// Appends to `file`. Throws FileError.
    explicit TransferLog(const std::string& file);

    /// One line. `setup` may be empty; `data` is written in hexadecimal.
    void write(std::string_view device, unsigned address, std::string_view kind,
               std::string_view setup, ByteView data, long result);

  private:
    std::string name_;
    zelf::FileDescriptor file_;
};

}  // namespace zelfsim
