/// \file
/// The binary trace file, and the process-wide critical section that keeps each record of it whole.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>

/// A directory for everybody: this one name is opened with `open_private_file`.
constexpr char default_trace_filename[] = "/tmp/zelfwtrace.log";

/// A small mutex with an owner and a timed acquire.
class mutexSem {
  public:
    mutexSem();
    virtual ~mutexSem();
    mutexSem(const mutexSem&) = delete;
    mutexSem& operator=(const mutexSem&) = delete;

    /// `timeout` in seconds, 0 for practically ever. Returns 0 when the mutex was taken, else the
    /// code of the last failed attempt (EBUSY).
    int Acquire(unsigned int timeout);
    /// Returns 0, also when the caller is not the owner and nothing was released.
    int Release();
    int Destroy();

    pthread_mutex_t serializer;  ///< guards `owner` and each attempt on `semid`
    pthread_t owner;             ///< 0 when free
    pthread_mutex_t pthreadMutex;
    pthread_mutex_t* semid;  ///< null makes every operation a no-op
    int createRC;
};

extern mutexSem CritSectSem;

void chEnterCritSec();
void chExitCritSec();

/// Record kinds of the trace file.
namespace trace_kind {
constexpr std::uint32_t version = 501;
constexpr std::uint32_t text = 42;
constexpr std::uint32_t report_written = 405;
constexpr std::uint32_t status_read = 406;
constexpr std::uint32_t feature_read = 407;
}  // namespace trace_kind

/// `component` of every record but the version record.
constexpr std::uint8_t trace_data_component = 'e';
/// The version record's `length` field; nothing follows the header all the same.
constexpr std::uint32_t version_record_length = 16;
/// Room for a text with its end mark: a text record has at most one byte less.
constexpr std::size_t max_trace_text = 41960;
/// Bytes in front of a report in its record: product ID and usage, high bytes first, four zeros.
constexpr std::size_t trace_prefix_size = 8;

#pragma pack(push, 1)
/// Header of every trace record; little-endian, no padding.
struct traceStruct3 {
    std::uint32_t length;     ///< payload bytes that follow
    std::uint32_t minorCode;  ///< record kind
    double clockTime;         ///< milliseconds since the first stamp; never decreases
    std::uint32_t tid;
    std::uint32_t pid;
    std::uint32_t time;  ///< seconds since the epoch
    std::uint8_t component;
    std::uint8_t reserved;
    std::uint16_t milliseconds;
};
#pragma pack(pop)
static_assert(sizeof(traceStruct3) == 32);

class Trace {
  public:
    /// An empty name leaves the object inert. `open_mode` 0 appends, 1 rotates the file into
    /// `count` numbered copies and starts anew, any other value starts anew. A file that can't be
    /// opened is not reported.
    Trace(const char* filename, int open_mode, int count);
    ~Trace();
    Trace(const Trace&) = delete;
    Trace& operator=(const Trace&) = delete;

    /// Writes one record of kind `minorCode` with `length` bytes of payload.
    void WriteTraceData(unsigned long minorCode, const unsigned char* buffer, unsigned long length);
    /// As one record whose payload is `prefix` and `data`.
    void WriteTraceData(unsigned long minorCode, std::span<const unsigned char> prefix,
                        std::span<const unsigned char> data);
    /// Writes a text record; the text is cut at 41959 bytes.
    void tprintf(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    /// Writes a text record of a text that is formatted already. It is interpreted a second time,
    /// without arguments: "%%" becomes "%", any other conversion stays as it is written.
    void write_formatted_text(const char* text);
    /// Writes a text record in a signal handler that has claimed the critical section: no lock, no
    /// allocation, the text as it stands.
    void write_text_in_handler(const char* text) const;

  private:
    std::uint32_t chTime();
    void OpenTraceFile();
    void CreateBackupCopies();
    void WriteTraceVersion();
    void CloseTraceFile();
    void write_text(const char* text, std::size_t length);
    traceStruct3 make_header(std::uint32_t minorCode, std::uint32_t length);

    const std::uint32_t process;
    FILE* trace_fd;
    std::uint8_t component;
    std::int32_t backup_count;
    std::int32_t trace_mode;
    char trace_filename[255];
};

/// The one trace object, null when tracing is off.
extern std::unique_ptr<Trace> trace;
