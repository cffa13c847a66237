#include "common/file_access.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <utility>

namespace zelf {

namespace {

constexpr mode_t mode = 0644;

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

/// A file beside the one that it is to replace, under a name that nobody else has; removed unless
/// it takes the other's name.
class NewFile {
  public:
    explicit NewFile(const std::string& target) : target_(target) {
        for (int number = 0; number < most_names && !descriptor_.is_open(); ++number) {
            name_ = target + ".new-" + std::to_string(getpid()) + "-" + std::to_string(number);
            descriptor_ = FileDescriptor(
                open(name_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, replaced_mode));
            if (!descriptor_.is_open() && errno != EEXIST) {
                break;
            }
        }
        if (!descriptor_.is_open()) {
            throw FileError(target, 0, std::strerror(errno));
        }
    }
    ~NewFile() {
        if (!renamed_) {
            unlink(name_.c_str());
        }
    }
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    const FileDescriptor& descriptor() const { return descriptor_; }
    bool rename() {
        renamed_ = std::rename(name_.c_str(), target_.c_str()) == 0;
        return renamed_;
    }

  private:
    static constexpr int most_names = 100;
    static constexpr mode_t replaced_mode = 0666;

    std::string target_;
    std::string name_;
    FileDescriptor descriptor_;
    bool renamed_ = false;
};

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
    FileDescriptor handle(open(file.c_str(), flags, mode));
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

void replace_file(const std::string& file, ByteView bytes, Durable durable) {
    NewFile beside(file);
    append(beside.descriptor(), file, bytes);
    if ((durable == Durable::yes && fsync(beside.descriptor().get()) != 0) || !beside.rename()) {
        throw FileError(file, 0, std::strerror(errno));
    }
}

void replace_file(const std::string& file, std::string_view text, Durable durable) {
    replace_file(file, ByteView(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()),
                 durable);
}

bool exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

bool is_directory(const std::string& path) {
    struct stat about = {};
    return stat(path.c_str(), &about) == 0 && S_ISDIR(about.st_mode);
}

void create_directories(const std::string& path) {
    constexpr mode_t directory_mode = 0777;
    for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
        const std::string part = path.substr(0, end);
        const int error = mkdir(part.c_str(), directory_mode) == 0 ? 0 : errno;
        if (error != 0 && !is_directory(part)) {
            throw FileError(path, 0, std::strerror(error));
        }
        if (end == std::string::npos) {
            return;
        }
    }
}

Bytes read_bytes_of(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    Bytes bytes;
    std::array<char, 65536> part{};
    while (stream.read(part.data(), part.size()) || stream.gcount() > 0) {
        bytes.insert(bytes.end(), part.begin(), part.begin() + stream.gcount());
    }
    return bytes;
}

}  // namespace zelf
