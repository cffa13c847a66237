/// \file
/// The private copy of a firmware file: what was checked is what is sent, whatever becomes of the
/// file in the meantime.
#pragma once

#include "journal/file_handle.h"

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>

/// A firmware file's bytes in memory, as they stood at one moment.
class FileCopy {
  public:
    /// No device takes an image of this size; a file that claims one must not take the memory.
    static constexpr std::size_t max_size = 64U << 20U;

    /// Reads the whole of `file`. Returns an empty text, or the reason why there is no copy.
    std::string take(FILE* file);

    /// The copy as a stream that stands at its start; null while there is none.
    FILE* stream() const { return stream_.get(); }

  private:
    std::unique_ptr<char[]> bytes_;
    FileHandle stream_;  // reads from `bytes_`, and so goes first
};
