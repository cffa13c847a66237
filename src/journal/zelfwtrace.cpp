#include "journal/zelfwtrace.h"

#include "journal/file_handle.h"
#include "journal/private_file.h"

#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <vector>

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

/// Writes a record by one call, so that a signal that ends the process leaves whole records.
void write_whole(FILE* file, traceStruct3 header, const unsigned char* data, std::size_t length) {
    const std::array parts = {iovec{&header, sizeof(header)},
                              iovec{const_cast<unsigned char*>(data), length}};
    // A journal that can't be written is done without.
    [[maybe_unused]] const ssize_t written =
        writev(fileno(file), parts.data(), static_cast<int>(parts.size()));
}

/// Interprets a text as a format without arguments.
std::vector<char> reinterpret_without_arguments(const char* text) {
    std::vector<char> result;
    result.reserve(strlen(text) + 1);
    for (const char* at = text; *at != '\0'; ++at) {
        result.push_back(*at);
        if (at[0] == '%' && at[1] == '%') {
            ++at;
        }
    }
    return result;
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
    : trace_fd(nullptr),
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
    if (trace_fd == nullptr && trace_filename[0] != '\0') {
        const bool append = trace_mode == 0;
        trace_fd = strcmp(trace_filename, default_trace_filename) == 0
                       ? open_private_file(trace_filename, append)
                       : open_for_writing(trace_filename, append);
        if (trace_fd != nullptr) {
            setvbuf(trace_fd, nullptr, _IONBF, 0);
        }
    }
    WriteTraceVersion();
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
    header.pid = static_cast<std::uint32_t>(getpid());
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
    chEnterCritSec();
    fwrite(&header, sizeof(header), 1, trace_fd);
    chExitCritSec();
}

void Trace::WriteTraceData(unsigned long minorCode, const unsigned char* buffer,
                           unsigned long length) {
    if (trace_fd == nullptr) {
        return;
    }
    const traceStruct3 header =
        make_header(static_cast<std::uint32_t>(minorCode), static_cast<std::uint32_t>(length));
    chEnterCritSec();
    write_whole(trace_fd, header, buffer, length);
    chExitCritSec();
}

void Trace::tprintf(const char* fmt, ...) {
    char OutBuffer[max_trace_text];
    va_list arguments;
    va_start(arguments, fmt);
    vsnprintf(OutBuffer, sizeof(OutBuffer), fmt, arguments);
    va_end(arguments);
    WriteTraceData(trace_kind::text, reinterpret_cast<const unsigned char*>(OutBuffer),
                   strlen(OutBuffer));
}

void Trace::write_formatted_text(const char* text) {
    std::size_t length = strlen(text);
    std::vector<char> result;
    if (strchr(text, '%') != nullptr) {
        result = reinterpret_without_arguments(text);
        text = result.data();
        length = result.size();
    }
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
    header.pid = static_cast<std::uint32_t>(getpid());
    header.time = static_cast<std::uint32_t>(clock.tv_sec);
    header.component = component;
    header.milliseconds = static_cast<std::uint16_t>(milliseconds);
    write_whole(trace_fd, header, reinterpret_cast<const unsigned char*>(text), header.length);
}

void Trace::CloseTraceFile() {
    if (trace_fd != nullptr) {
        chEnterCritSec();
        fclose(trace_fd);
        trace_fd = nullptr;
        chExitCritSec();
    }
}
