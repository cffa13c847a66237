#include "journal/private_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace {

constexpr int common_flags = O_WRONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
constexpr mode_t file_mode = 0666;

int create_exclusively(const char* path) {
    return open(path, common_flags | O_CREAT | O_EXCL, file_mode);
}

bool is_our_own(int descriptor) {
    struct stat about = {};
    return fstat(descriptor, &about) == 0 && S_ISREG(about.st_mode) && about.st_uid == geteuid() &&
           about.st_nlink == 1;
}

int open_our_own(const char* path) {
    const int descriptor = open(path, common_flags);
    if (descriptor < 0) {
        return errno == ENOENT ? create_exclusively(path) : -1;
    }
    if (is_our_own(descriptor)) {
        return descriptor;
    }
    close(descriptor);
    return -1;
}

}  // namespace

FILE* open_private_file(const char* path, bool append) {
    int descriptor = open_our_own(path);
    if (descriptor < 0 && geteuid() == 0 && unlink(path) == 0) {
        descriptor = create_exclusively(path);
    }
    if (descriptor < 0) {
        return nullptr;
    }
    const int position_flags = append ? O_APPEND : 0;
    if ((!append && ftruncate(descriptor, 0) != 0) ||
        fcntl(descriptor, F_SETFL, position_flags) != 0) {
        close(descriptor);
        return nullptr;
    }
    FILE* stream = fdopen(descriptor, append ? "ab" : "wb");
    if (stream == nullptr) {
        close(descriptor);
    }
    return stream;
}
