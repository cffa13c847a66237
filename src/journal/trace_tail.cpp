#include "journal/trace_tail.h"

#include "journal/file_handle.h"
#include "journal/zelfwtrace.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

namespace {

constexpr std::size_t header_size = sizeof(traceStruct3);
constexpr std::size_t longest_report = 0xFFFF;
constexpr std::size_t longest_record = header_size + trace_prefix_size + longest_report;
/// Holds a whole record, wherever it begins.
constexpr std::size_t window_size = 2 * longest_record;

/// The end of a file.
struct Window {
    std::unique_ptr<unsigned char[]> bytes;
    std::size_t size = 0;
};

Window read_end(const FileDescriptor& file) {
    struct stat about = {};
    if (fstat(file.get(), &about) != 0 || !S_ISREG(about.st_mode) || about.st_size == 0) {
        return {};
    }
    // The file is open for writing only.
    std::array<char, 64> name = {};
    snprintf(name.data(), name.size(), "/proc/self/fd/%d", file.get());
    const FileDescriptor reader(open(name.data(), O_RDONLY | O_CLOEXEC));
    Window window = {
        std::unique_ptr<unsigned char[]>(new (std::nothrow) unsigned char[window_size])};
    const off_t start = std::max(off_t{0}, about.st_size - static_cast<off_t>(window_size));
    if (window.bytes != nullptr && reader.is_open()) {
        const ssize_t count = pread(reader.get(), window.bytes.get(), window_size, start);
        window.size = start + count == about.st_size ? static_cast<std::size_t>(count) : 0;
    }
    return window;
}

/// The length of the record that begins at `at`; 0 when none does.
std::size_t record_length(const Window& window, std::size_t at) {
    traceStruct3 header = {};
    memcpy(&header, window.bytes.get() + at, header_size);
    const double clock = header.clockTime;
    const bool is_clock = clock >= 0 && clock <= UINT32_MAX && std::floor(clock) == clock;
    if (!is_clock || header.reserved != 0 || header.milliseconds > 999) {
        return 0;
    }
    if (header.minorCode == trace_kind::version) {
        return header.length == version_record_length ? header_size : 0;
    }
    const bool is_text = header.minorCode == trace_kind::text && header.length < max_trace_text;
    const bool is_transfer = header.minorCode >= trace_kind::report_written &&
                             header.minorCode <= trace_kind::feature_read &&
                             header.length >= trace_prefix_size &&
                             header.length <= trace_prefix_size + longest_report;
    const bool is_data = header.component == trace_data_component && (is_text || is_transfer);
    return is_data ? header_size + header.length : 0;
}

enum class Ending { damaged, whole, half };

struct Walk {
    Ending ending = Ending::damaged;
    std::size_t left = 0;  ///< bytes of the half record
};

/// Goes from record to record, beginning at `at`.
Walk walk_records(const Window& window, std::size_t at) {
    bool has_record = false;
    while (at < window.size) {
        const std::size_t left = window.size - at;
        if (left < header_size) {
            return {has_record ? Ending::half : Ending::damaged, left};
        }
        const std::size_t length = record_length(window, at);
        if (length == 0) {
            return {};
        }
        if (length > left) {
            return {Ending::half, left};
        }
        has_record = true;
        at += length;
    }
    return {has_record ? Ending::whole : Ending::damaged, 0};
}

/// The bytes of the record that the window ends inside of. Bytes of a device may look like a
/// record, so one walk that ends with a whole record outweighs all that don't, and of those the one
/// that leaves the least counts.
std::size_t half_record_size(const Window& window) {
    std::size_t least = 0;
    for (std::size_t at = 0; at < window.size; ++at) {
        const Walk walk = walk_records(window, at);
        if (walk.ending == Ending::whole) {
            return 0;
        }
        if (walk.ending == Ending::half && (least == 0 || walk.left < least)) {
            least = walk.left;
        }
    }
    return least;
}

}  // namespace

std::size_t remove_half_record(const FileDescriptor& file) {
    const Window window = read_end(file);
    const std::size_t size = half_record_size(window);
    struct stat about = {};
    if (size == 0 || fstat(file.get(), &about) != 0 ||
        ftruncate(file.get(), about.st_size - static_cast<off_t>(size)) != 0) {
        return 0;
    }
    return size;
}
