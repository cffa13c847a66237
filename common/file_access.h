/// \file
/// The few file operations of tools and simulation, each of which leaves whole files behind when
/// the process is killed.
#pragma once

#include "common/bytes.h"
#include "common/file_error.h"

#include <string>
#include <string_view>

namespace zelf {

/// An open file descriptor with an owner.
class FileDescriptor {
  public:
    FileDescriptor() = default;
    explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
    FileDescriptor(FileDescriptor&& other) noexcept;
    FileDescriptor& operator=(FileDescriptor&& other) noexcept;
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor();

    bool is_open() const { return descriptor_ >= 0; }
    int get() const { return descriptor_; }

  private:
    int descriptor_ = -1;
};

/// Opens for appending, creating the file when needed; `empty` cuts an old one to nothing. Throws
/// FileError.
FileDescriptor open_for_append(const std::string& file, bool empty);

/// Appends in one write. Throws FileError naming `file`.
void append(const FileDescriptor& handle, const std::string& file, ByteView bytes);
void append(const FileDescriptor& handle, const std::string& file, std::string_view text);

/// Whether a file's bytes must have reached the disk before it takes its name.
enum class Durable { no, yes };

/// Writes beside the file and renames, so that a reader sees the old or the new file. Throws
/// FileError; what was written beside it is then gone again.
void replace_file(const std::string& file, ByteView bytes, Durable durable = Durable::no);
void replace_file(const std::string& file, std::string_view text, Durable durable = Durable::no);

// As std::filesystem's, whose times have 32 bits in the C++ library of a 32-bit system: there it
// finds no file that is dated after January 2038.
bool exists(const std::string& path);
bool is_directory(const std::string& path);
/// With all above it. Throws FileError.
void create_directories(const std::string& path);

/// The whole file; empty when there is none.
Bytes read_bytes_of(const std::string& file);

}  // namespace zelf
