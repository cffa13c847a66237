#include "journal/file_handle.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

FileHandle open_regular_file(const char* path) {
    // O_NONBLOCK: a fifo without a writer must not hold up the open.
    const int descriptor = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (descriptor < 0) {
        return nullptr;
    }
    struct stat status = {};
    FILE* file = nullptr;
    if (fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode)) {
        file = fdopen(descriptor, "rb");
    }
    if (file == nullptr) {
        close(descriptor);
    }
    return FileHandle(file);
}

FILE* open_for_writing(const char* path, bool append) {
    constexpr mode_t file_mode = 0666;
    const int descriptor =
        open(path,
             O_WRONLY | O_CREAT | (append ? O_APPEND : O_TRUNC) | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
             file_mode);
    if (descriptor < 0) {
        return nullptr;
    }
    FILE* file = nullptr;
    if (fcntl(descriptor, F_SETFL, append ? O_APPEND : 0) == 0) {
        file = fdopen(descriptor, append ? "ab" : "wb");
    }
    if (file == nullptr) {
        close(descriptor);
    }
    return file;
}
