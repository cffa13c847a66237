#include "journal/file_handle.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <thread>
#include <utility>

namespace {

using namespace std::chrono_literals;

constexpr mode_t file_mode = 0666;
/// O_NONBLOCK: a fifo without a reader or writer must not hold up the open.
constexpr int common_flags = O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
constexpr int private_flags = common_flags | O_WRONLY | O_APPEND | O_NOFOLLOW;

/// Somebody else may take the name away, or make one, between two steps.
constexpr int most_attempts = 20;

constexpr auto longest_wait_for_others = 1000ms;
/// A run has a file for itself only as long as it takes to start it anew.
constexpr auto longest_wait_to_share = 100ms;
constexpr auto lock_interval = 10ms;

bool is_regular(const FileDescriptor& file) {
    struct stat about = {};
    return fstat(file.get(), &about) == 0 && S_ISREG(about.st_mode);
}

/// False only when somebody else stands in the way: some file systems have no locks.
bool lock(const FileDescriptor& file, int kind) {
    return flock(file.get(), kind | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

bool lock_within(const FileDescriptor& file, int kind, std::chrono::milliseconds longest_wait) {
    for (auto waited = 0ms; !lock(file, kind); waited += lock_interval) {
        if (waited >= longest_wait) {
            return false;
        }
        std::this_thread::sleep_for(lock_interval);
    }
    return true;
}

/// From here on a full pipe is waited for.
FileDescriptor made_blocking(FileDescriptor file) {
    const int flags = file.is_open() ? fcntl(file.get(), F_GETFL) : -1;
    const bool done = flags >= 0 && fcntl(file.get(), F_SETFL, flags & ~O_NONBLOCK) == 0;
    return done ? std::move(file) : FileDescriptor();
}

bool is_our_own(const FileDescriptor& file) {
    struct stat about = {};
    return fstat(file.get(), &about) == 0 && S_ISREG(about.st_mode) && about.st_uid == geteuid() &&
           about.st_nlink == 1;
}

/// The file of that name if it is ours, a new one if there is none.
FileDescriptor open_our_own(const char* path) {
    for (int attempt = 0; attempt < most_attempts; ++attempt) {
        FileDescriptor file(open(path, private_flags));
        if (file.is_open()) {
            return is_our_own(file) ? std::move(file) : FileDescriptor();
        }
        if (errno != ENOENT) {
            break;
        }
        file = FileDescriptor(open(path, private_flags | O_CREAT | O_EXCL, file_mode));
        if (file.is_open() || errno != EEXIST) {
            return file;
        }
    }
    return FileDescriptor();
}

using Name = std::array<char, PATH_MAX>;

/// A name beside `path` that nobody can guess.
bool make_name_beside(const char* path, Name& name) {
    std::uint64_t number = 0;
    const bool is_random = getrandom(&number, sizeof(number), GRND_NONBLOCK) == sizeof(number);
    const int length = snprintf(name.data(), name.size(), "%s.%016llx", path,
                                static_cast<unsigned long long>(number));
    return is_random && length > 0 && static_cast<std::size_t>(length) < name.size();
}

/// A directory is no place for a file: out of the way with it, and nothing in it is lost.
void move_directory_aside(const char* path) {
    Name aside = {};
    struct stat about = {};
    if (lstat(path, &about) == 0 && S_ISDIR(about.st_mode) && make_name_beside(path, aside)) {
        static_cast<void>(rename(path, aside.data()));
    }
}

/// Puts a new file in the place of whatever has the name, in one step: who makes the name again and
/// again does not win.
FileDescriptor replace_by_our_own(const char* path) {
    Name beside = {};
    FileDescriptor file(make_name_beside(path, beside)
                            ? open(beside.data(), private_flags | O_CREAT | O_EXCL, file_mode)
                            : -1);
    if (!file.is_open()) {
        return file;
    }
    for (int attempt = 0; attempt < most_attempts; ++attempt) {
        if (rename(beside.data(), path) == 0) {
            return file;
        }
        move_directory_aside(path);
    }
    unlink(beside.data());
    return FileDescriptor();
}

}  // namespace

FileDescriptor::~FileDescriptor() {
    if (is_open()) {
        close(descriptor_);
    }
}

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
}

int FileDescriptor::release() {
    return std::exchange(descriptor_, -1);
}

FileHandle stream_of(FileDescriptor descriptor, const char* mode) {
    FileHandle stream(descriptor.is_open() ? fdopen(descriptor.get(), mode) : nullptr);
    if (stream != nullptr) {
        descriptor.release();
    }
    return stream;
}

FileHandle open_regular_file(const char* path) {
    FileDescriptor file(open(path, common_flags | O_RDONLY));
    return file.is_open() && is_regular(file) ? stream_of(std::move(file), "rb") : nullptr;
}

FileHandle open_for_writing(const char* path) {
    FileDescriptor file =
        made_blocking(FileDescriptor(open(path, common_flags | O_WRONLY | O_CREAT, file_mode)));
    if (!file.is_open()) {
        return nullptr;
    }
    if (is_regular(file) && !lock_within(file, LOCK_EX, longest_wait_for_others)) {
        return nullptr;
    }
    cut_to_nothing(file);
    return stream_of(std::move(file), "wb");
}

FileDescriptor open_for_append(const char* path) {
    return made_blocking(
        FileDescriptor(open(path, common_flags | O_WRONLY | O_CREAT | O_APPEND, file_mode)));
}

FileDescriptor open_private_file(const char* path) {
    FileDescriptor file = open_our_own(path);
    if (!file.is_open() && geteuid() == 0) {
        file = replace_by_our_own(path);
    }
    return made_blocking(std::move(file));
}

bool claim_alone(const FileDescriptor& file) {
    return !is_regular(file) || lock(file, LOCK_EX);
}

void share(const FileDescriptor& file) {
    if (is_regular(file)) {
        lock_within(file, LOCK_SH, longest_wait_to_share);
    }
}

void cut_to_nothing(const FileDescriptor& file) {
    if (is_regular(file)) {
        // A file that may only grow is appended to.
        [[maybe_unused]] const int rc = ftruncate(file.get(), 0);
    }
}
