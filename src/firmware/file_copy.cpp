#include "firmware/file_copy.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <new>

std::string FileCopy::take(FILE* file) {
    stream_.reset();
    struct stat status = {};
    if (fstat(fileno(file), &status) != 0) {
        return std::string("it can't be read: ") + strerror(errno);
    }
    if (status.st_size > static_cast<off_t>(max_size)) {
        return "it is larger than " + std::to_string(max_size >> 20U) + " MiB";
    }
    const auto size = static_cast<std::size_t>(status.st_size);
    // One byte more shows that the file has grown.
    bytes_.reset(new (std::nothrow) char[size + 1]);
    if (bytes_ == nullptr) {
        return "there is no memory for a copy of it";
    }
    const std::size_t read = fread(bytes_.get(), 1, size + 1, file);
    if (ferror(file) != 0) {
        return std::string("it can't be read: ") + strerror(errno);
    }
    if (read != size) {
        return "it changed while it was read";
    }
    stream_.reset(fmemopen(bytes_.get(), size, "rb"));
    return stream_ != nullptr ? "" : "there is no memory for a copy of it";
}
