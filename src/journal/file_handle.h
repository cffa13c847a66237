/// \file
/// Owners of descriptors and stdio streams, and the opening of files in ways that block nothing and
/// that are safe under a well-known name in /tmp.
#pragma once

#include <cstdio>
#include <memory>

/// Closes the descriptor when it goes out of scope.
class FileDescriptor {
  public:
    FileDescriptor() = default;
    explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
    ~FileDescriptor();
    FileDescriptor(FileDescriptor&& other) noexcept : descriptor_(other.release()) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept;
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    bool is_open() const { return descriptor_ >= 0; }
    int get() const { return descriptor_; }
    /// Gives the descriptor away.
    int release();

  private:
    int descriptor_ = -1;
};

struct FileCloser {
    void operator()(FILE* file) const { static_cast<void>(fclose(file)); }
};

/// Closes the stream when it goes out of scope; a failure to close is ignored.
using FileHandle = std::unique_ptr<FILE, FileCloser>;

/// The stream takes over the descriptor. Null when there is none, or no memory for the stream.
FileHandle stream_of(FileDescriptor descriptor, const char* mode);

/// Opens `path` with mode "rb" when it is a regular file or a link to one. A directory, fifo,
/// socket or device counts as a file that can't be opened, and none of them blocks the call.
FileHandle open_regular_file(const char* path);

/// Opens `path` as `fopen` does with mode "wb" (start anew), except that a fifo nobody reads counts
/// as a file that can't be opened: its reader might never come. So does a file that another run
/// is writing for longer than a second; until the stream is closed, others wait for this one.
FileHandle open_for_writing(const char* path);

/// Opens `path` to append to, and creates it when needed; it is never cut. A fifo nobody reads
/// counts as a file that can't be opened.
FileDescriptor open_for_append(const char* path);

/// As `open_for_append`, for a name in a directory anybody can write to: never through a link,
/// never a file of somebody else, a file with several names, or anything but a regular file. The
/// super-user puts a new file in the place of such a thing (a directory is renamed); for everybody
/// else it can't be opened.
FileDescriptor open_private_file(const char* path);

/// Takes a file for this run alone, and does not wait. False when another run has it. True also for
/// what can't be shared out: a device, a fifo, a file on a system without locks.
bool claim_alone(const FileDescriptor& file);

/// From now until it is closed, no run gets the file alone, and others may share it.
void share(const FileDescriptor& file);

/// Cuts a regular file to nothing.
void cut_to_nothing(const FileDescriptor& file);
