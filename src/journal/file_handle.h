/// \file
/// Owner of a stdio stream, and the opening of files in ways that block nothing.
#pragma once

#include <cstdio>
#include <memory>

struct FileCloser {
    void operator()(FILE* file) const { static_cast<void>(fclose(file)); }
};

/// Closes the stream when it goes out of scope; a failure to close is ignored.
using FileHandle = std::unique_ptr<FILE, FileCloser>;

/// Opens `path` with mode "rb" when it is a regular file or a link to one. A directory, fifo,
/// socket or device counts as a file that can't be opened, and none of them blocks the call.
FileHandle open_regular_file(const char* path);

/// Opens `path` as `fopen` does with mode "wb" (start anew) or "ab" (append), except that a fifo
/// nobody reads counts as a file that can't be opened: its reader might never come.
FILE* open_for_writing(const char* path, bool append);
