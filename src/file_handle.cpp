#include "file_handle.h"

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
