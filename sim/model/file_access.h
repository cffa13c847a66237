/// \file
/// The few file operations of state and record, each of which leaves whole files behind when the
/// process is killed.
#pragma once

#include "model/basics.h"

#include <string>
#include <string_view>

namespace zelfsim {

/// An open file descriptor with an owner.
class FileHandle {
  public:
    FileHandle() = default;
    explicit FileHandle(int descriptor) : descriptor_(descriptor) {}
    FileHandle(FileHandle&& other) noexcept;
    FileHandle& operator=(FileHandle&& other) noexcept;
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;
    ~FileHandle();

    bool is_open() const { return descriptor_ >= 0; }
    int get() const { return descriptor_; }

  private:
    int descriptor_ = -1;
};

/// Opens for appending, creating the file when needed; `empty` cuts an old one to nothing. Throws
/// FileError.
FileHandle open_for_append(const std::string& file, bool empty);

/// Appends in one write. Throws FileError naming `file`.
void append(const FileHandle& handle, const std::string& file, ByteView bytes);
void append(const FileHandle& handle, const std::string& file, std::string_view text);

/// Writes beside the file and renames, so that a reader sees the old or the new file. Throws
/// FileError.
void replace_file(const std::string& file, std::string_view text);

/// The whole file; empty when there is none.
Bytes read_bytes_of(const std::string& file);

}  // namespace zelfsim
