#include "journal/zelfwtrace.h"

#include "journal/file_handle.h"
#include "journal/trace_tail.h"

#include <sys/stat.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <span>
#include <utility>

mutexSem CritSectSem;
std::unique_ptr<Trace> trace;

namespace {

constexpr unsigned int attempt_interval = 50;  // milliseconds
constexpr suseconds_t attempt_microseconds = 50000;
/// About 7.8 days, in milliseconds.
constexpr unsigned int longest_wait = 0x27FFFC18;

// One clock for all trace objects of the process.
std::atomic<std::uint32_t> start_time{0};
std::atomic<std::uint32_t> prev_time{0};
std::atomic<std::uint32_t> adjust_time{0};
/// 1 while the message about a backward step is written: its own stamp must not report again.
std::atomic<bool> reporting_step_back{false};

struct Moment {
    std::uint16_t milliseconds;  ///< of the second
    int minutes_west;            ///< of Greenwich
};

/// What `ftime` tells. It is not called itself: a 32-bit C library's knows no 64-bit times.
Moment read_moment() {
    timeval now = {};
    struct timezone zone = {};
    gettimeofday(&now, &zone);
    return {static_cast<std::uint16_t>(now.tv_usec / 1000), zone.tz_minuteswest};
}

/// Takes back what was written last: half a record would hide all behind it from every reader.
void take_back(int file, std::size_t count) {
    const off_t end = lseek(file, 0, SEEK_CUR);
    struct stat about = {};
    if (count > 0 && end > 0 && fstat(file, &about) == 0 && about.st_size == end) {
        [[maybe_unused]] const int rc = ftruncate(file, end - static_cast<off_t>(count));
    }
}

/// What of the parts is behind their first `count` bytes.
std::span<iovec> behind(std::span<iovec> parts, std::size_t count) {
    while (!parts.empty() && count >= parts.front().iov_len) {
        count -= parts.front().iov_len;
        parts = parts.subspan(1);
    }
    if (!parts.empty()) {
        parts.front().iov_base = static_cast<char*>(parts.front().iov_base) + count;
        parts.front().iov_len -= count;
    }
    return parts;
}

/// Writes a record, by one call unless the system takes less, so that a signal that ends the
/// process leaves whole records. A journal that can't be written is done without.
void write_whole(int file, std::span<iovec> parts) {
    std::size_t written = 0;
    while (!parts.empty()) {
        const ssize_t count = writev(file, parts.data(), static_cast<int>(parts.size()));
        if (count > 0) {
            written += static_cast<std::size_t>(count);
            parts = behind(parts, static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            take_back(file, written);
            return;
        }
    }
}

iovec part(const void* data, std::size_t length) {
    return {const_cast<void*>(data), length};
}

using TraceText = std::array<char, max_trace_text>;

/// Interprets a text as a format without arguments; what does not fit is cut. Gives the length.
std::size_t reinterpret_without_arguments(const char* text, TraceText& result) {
    std::size_t length = 0;
    for (const char* at = text; *at != '\0' && length < result.size(); ++at) {
        result[length] = *at;
        ++length;
        if (at[0] == '%' && at[1] == '%') {
            ++at;
        }
    }
    return length;
}

}  // namespace

mutexSem::mutexSem() : owner(0), semid(nullptr), createRC(0) {
    pthread_mutex_init(&serializer, nullptr);
    pthread_mutex_init(&pthreadMutex, nullptr);
    semid = &pthreadMutex;
}

mutexSem::~mutexSem() {
    pthread_mutex_destroy(&pthreadMutex);
    pthread_mutex_destroy(&serializer);
}

int mutexSem::Acquire(unsigned int timeout) {
    if (semid == nullptr) {
        return 0;
    }
    unsigned int budget = timeout == 0 ? longest_wait : timeout * 1000;
    if (budget == 0) {
        return 0;
    }
    for (;;) {
        pthread_mutex_lock(&serializer);
        const int result = pthread_mutex_trylock(semid);
        if (result == 0) {
            owner = pthread_self();
        }
        pthread_mutex_unlock(&serializer);
        if (result == 0) {
            return 0;
        }
        timeval interval = {0, attempt_microseconds};
        select(0, nullptr, nullptr, nullptr, &interval);
        if (budget <= attempt_interval) {
            return result;
        }
        budget -= attempt_interval;
    }
}

int mutexSem::Release() {
    if (semid == nullptr) {
        return 0;
    }
    int result = 0;
    pthread_mutex_lock(&serializer);
    if (pthread_equal(owner, pthread_self()) != 0) {
        owner = 0;
        result = pthread_mutex_unlock(semid);
    }
    pthread_mutex_unlock(&serializer);
    return result;
}

int mutexSem::Destroy() {
    return 0;
}

void chEnterCritSec() {
    CritSectSem.Acquire(0);
}

void chExitCritSec() {
    CritSectSem.Release();
}

Trace::Trace(const char* filename, int open_mode, int count)
    : process(static_cast<std::uint32_t>(getpid())),
      trace_fd(nullptr),
      component(trace_data_component),
      backup_count(count),
      trace_mode(open_mode),
      trace_filename{} {
    snprintf(trace_filename, sizeof(trace_filename), "%s", filename);
    if (trace_filename[0] != '\0') {
        CreateBackupCopies();
        OpenTraceFile();
    }
}

Trace::~Trace() {
    CloseTraceFile();
}

void Trace::OpenTraceFile() {
    std::size_t removed = 0;
    if (trace_fd == nullptr && trace_filename[0] != '\0') {
        FileDescriptor file = strcmp(trace_filename, default_trace_filename) == 0
                                  ? open_private_file(trace_filename)
                                  : open_for_append(trace_filename);
        if (file.is_open() && claim_alone(file)) {
            if (trace_mode == 0) {
                removed = remove_half_record(file);
            } else {
                cut_to_nothing(file);
            }
        }
        if (file.is_open()) {
            share(file);
        }
        trace_fd = stream_of(std::move(file), "ab").release();
        if (trace_fd != nullptr) {
            setvbuf(trace_fd, nullptr, _IONBF, 0);
        }
    }
    WriteTraceVersion();
    if (trace_fd != nullptr && removed > 0) {
        tprintf("The last record was cut short, %zu bytes of it were removed\n", removed);
    }
}

void Trace::CreateBackupCopies() {
    if (trace_mode != 1) {
        return;
    }
    if (backup_count < 1) {
        remove(trace_filename);
        return;
    }
    char older[sizeof(trace_filename) + 16];
    char newer[sizeof(trace_filename) + 16];
    for (int i = backup_count; i >= 2; --i) {
        snprintf(older, sizeof(older), "%s.%d", trace_filename, i);
        snprintf(newer, sizeof(newer), "%s.%d", trace_filename, i - 1);
        remove(older);
        rename(newer, older);
    }
    snprintf(older, sizeof(older), "%s.%d", trace_filename, 1);
    remove(older);
    rename(trace_filename, older);
}

traceStruct3 Trace::make_header(std::uint32_t minorCode, std::uint32_t length) {
    const Moment now = read_moment();
    traceStruct3 header = {};
    header.length = length;
    header.minorCode = minorCode;
    header.clockTime = chTime();
    header.tid = static_cast<std::uint32_t>(pthread_self());
    header.pid = process;
    header.time = static_cast<std::uint32_t>(::time(nullptr));
    header.component = component;
    header.milliseconds = now.milliseconds;
    if (minorCode == trace_kind::version) {
        // Minutes divided by the seconds of an hour: 0 in every real time zone.
        header.component = static_cast<std::uint8_t>(now.minutes_west / 3600);
    }
    return header;
}

void Trace::WriteTraceVersion() {
    if (trace_fd == nullptr) {
        return;
    }
    const traceStruct3 header = make_header(trace_kind::version, version_record_length);
    std::array parts = {part(&header, sizeof(header))};
    chEnterCritSec();
    write_whole(fileno(trace_fd), parts);
    chExitCritSec();
}

void Trace::WriteTraceData(unsigned long minorCode, const unsigned char* buffer,
                           unsigned long length) {
    WriteTraceData(minorCode, {}, {buffer, length});
}

void Trace::WriteTraceData(unsigned long minorCode, std::span<const unsigned char> prefix,
                           std::span<const unsigned char> data) {
    if (trace_fd == nullptr) {
        return;
    }
    const traceStruct3 header =
        make_header(static_cast<std::uint32_t>(minorCode),
                    static_cast<std::uint32_t>(prefix.size() + data.size()));
    std::array parts = {part(&header, sizeof(header)), part(prefix.data(), prefix.size()),
                        part(data.data(), data.size())};
    chEnterCritSec();
    write_whole(fileno(trace_fd), parts);
    chExitCritSec();
}

void Trace::tprintf(const char* fmt, ...) {
    TraceText OutBuffer;
    va_list arguments;
    va_start(arguments, fmt);
    vsnprintf(OutBuffer.data(), OutBuffer.size(), fmt, arguments);
    va_end(arguments);
    write_text(OutBuffer.data(), strlen(OutBuffer.data()));
}

void Trace::write_formatted_text(const char* text) {
    if (strchr(text, '%') == nullptr) {
        write_text(text, strlen(text));
        return;
    }
    TraceText result;
    write_text(result.data(), reinterpret_without_arguments(text, result));
}

void Trace::write_text(const char* text, std::size_t length) {
    WriteTraceData(trace_kind::text, reinterpret_cast<const unsigned char*>(text),
                   std::min(length, max_trace_text - 1));
}

std::uint32_t Trace::chTime() {
    // Read before the clock: a stamp that another thread takes meanwhile is no step back.
    const std::uint32_t previous = prev_time;
    timeval clock = {};
    gettimeofday(&clock, nullptr);
    const std::uint32_t now = static_cast<std::uint32_t>(clock.tv_sec) * 1000U +
                              static_cast<std::uint32_t>(clock.tv_usec / 1000);
    std::uint32_t unset = 0;
    start_time.compare_exchange_strong(unset, now);
    const std::uint32_t elapsed = now - start_time;
    if (elapsed < previous && !reporting_step_back.exchange(true)) {
        const std::uint32_t adjusted = previous + adjust_time - elapsed;
        adjust_time = adjusted;
        tprintf("time adjusted backwords!  current=%u prev=%u adjust=%u\n", elapsed, previous,
                adjusted);
        prev_time = elapsed;
        reporting_step_back = false;
    } else if (elapsed >= previous) {
        prev_time = elapsed;
    }
    return elapsed + adjust_time;
}

void Trace::write_text_in_handler(const char* text) const {
    if (trace_fd == nullptr) {
        return;
    }
    timeval clock = {};
    gettimeofday(&clock, nullptr);
    const std::uint32_t milliseconds = static_cast<std::uint32_t>(clock.tv_usec / 1000);
    const std::uint32_t now = static_cast<std::uint32_t>(clock.tv_sec) * 1000U + milliseconds;
    traceStruct3 header = {};
    header.length = static_cast<std::uint32_t>(strlen(text));
    header.minorCode = trace_kind::text;
    // `chTime` may report a step back of the clock, which takes the critical section.
    header.clockTime = std::max(now - start_time.load(), prev_time.load()) + adjust_time.load();
    header.tid = static_cast<std::uint32_t>(pthread_self());
    header.pid = process;
    header.time = static_cast<std::uint32_t>(clock.tv_sec);
    header.component = component;
    header.milliseconds = static_cast<std::uint16_t>(milliseconds);
    std::array parts = {part(&header, sizeof(header)), part(text, header.length)};
    write_whole(fileno(trace_fd), parts);
}

void Trace::CloseTraceFile() {
    if (trace_fd != nullptr) {
        chEnterCritSec();
        fclose(trace_fd);
        trace_fd = nullptr;
        chExitCritSec();
    }
}
