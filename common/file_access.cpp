#include "common/file_access.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <utility>

namespace zelf {

namespace {

constexpr mode_t kMode = 0644;

void write_all(int descriptor, const std::string& file, const void* data, std::size_t size) {
    const auto* bytes = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t written = write(descriptor, bytes, size);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            throw FileError(file, 0, std::strerror(errno));
        }
        bytes += written;
        size -= static_cast<std::size_t>(written);
    }
}

}  // namespace

FileDescriptor::FileDescriptor(FileDescriptor&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)) {}

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
}

FileDescriptor::~FileDescriptor() {
    if (descriptor_ >= 0) {
        close(descriptor_);
    }
}

FileDescriptor open_for_append(const std::string& file, bool empty) {
    const int flags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | (empty ? O_TRUNC : 0);
    FileDescriptor handle(open(file.c_str(), flags, kMode));
    if (!handle.is_open()) {
        throw FileError(file, 0, std::strerror(errno));
    }
    return handle;
}

void append(const FileDescriptor& handle, const std::string& file, ByteView bytes) {
    write_all(handle.get(), file, bytes.data(), bytes.size());
}

void append(const FileDescriptor& handle, const std::string& file, std::string_view text) {
    write_all(handle.get(), file, text.data(), text.size());
}

void replace_file(const std::string& file, std::string_view text) {
    const std::string beside = file + ".new";
    {
        const FileDescriptor handle(
            open(beside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kMode));
        if (!handle.is_open()) {
            throw FileError(beside, 0, std::strerror(errno));
        }
        append(handle, beside, text);
    }
    if (std::rename(beside.c_str(), file.c_str()) != 0) {
        throw FileError(file, 0, std::strerror(errno));
    }
}

Bytes read_bytes_of(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

}  // namespace zelf
