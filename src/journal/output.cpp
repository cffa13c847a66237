#include "journal/output.h"

#include "journal/file_handle.h"
#include "journal/zelfwtrace.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdarg>
#include <cstring>
#include <mutex>
#include <thread>
#include <utility>

int OutputLevel = 1;
int Verbose = 0;
FILE* hLogFile = nullptr;

namespace {

constexpr std::size_t log_message_size = 4196;
constexpr std::size_t debug_message_size = 41960;
/// First level at which debug messages are written.
constexpr int debug_level = 3;
constexpr std::chrono::seconds longest_wait_for_writer{1};
constexpr std::chrono::milliseconds pause_between_tries{1};
/// Log and console have buffers of their own, so that no message needs memory.
constexpr std::size_t stream_buffer_size = 4096;

/// A terminal stays one for the whole run, so it is asked once.
bool console_is_terminal = false;

/// Keeps `hLogFile` open while a thread writes to it. Recursive: a fault report may be written by
/// a thread that faulted inside a writer.
std::recursive_mutex log_file_in_use;

using LogFileLock = std::unique_lock<std::recursive_mutex>;

/// Waits for another writer, but not for ever: a thread may have faulted inside one. Tries again
/// instead of a timed wait, whose clock is the one that a person sets.
LogFileLock lock_log_file() {
    LogFileLock lock(log_file_in_use, std::try_to_lock);
    if (lock.owns_lock()) {
        return lock;
    }
    const auto end = std::chrono::steady_clock::now() + longest_wait_for_writer;
    while (!lock.try_lock() && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(pause_between_tries);
    }
    return lock;
}

void write_to_log(const char* text) {
    const LogFileLock lock = lock_log_file();
    if (lock.owns_lock() && hLogFile != nullptr) {
        fputs(text, hLogFile);
        fflush(hLogFile);
    }
}

/// Bytes of the well-formed UTF-8 character at `text` that is no control character; 0 when there is
/// none.
std::size_t multibyte_character_length(const char* text) {
    const auto byte_at = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte_at(0);
    if (lead < 0xC2 || lead > 0xF4) {
        return 0;
    }
    // The second byte tells a control character, too long a form, a surrogate, and what is past the
    // last character from the rest.
    const unsigned char lowest = lead == 0xC2 || lead == 0xE0 ? 0xA0 : (lead == 0xF0 ? 0x90 : 0x80);
    const unsigned char highest = lead == 0xED ? 0x9F : (lead == 0xF4 ? 0x8F : 0xBF);
    if (byte_at(1) < lowest || byte_at(1) > highest) {
        return 0;
    }
    const std::size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    for (std::size_t i = 2; i < length; ++i) {
        if ((byte_at(i) & 0xC0) != 0x80) {
            return 0;
        }
    }
    return length;
}

bool is_control_character(unsigned char c) {
    return (c < 0x20 && c != '\n' && c != '\t') || (c >= 0x7F && c < 0xA0);
}

/// A terminal obeys control characters, and part of a message may come from a device: they are
/// shown as '?'.
void hide_control_characters(char* text) {
    while (*text != '\0') {
        const std::size_t multibyte = multibyte_character_length(text);
        if (multibyte == 0 && is_control_character(static_cast<unsigned char>(*text))) {
            *text = '?';
        }
        text += multibyte == 0 ? 1 : multibyte;
    }
}

bool is_line_control(char c) {
    return c == '\n' || c == '\t';
}

/// Shows as '?' the newlines and tabs of `text` that came with the arguments: a serial number must
/// not end its line and begin one that looks like the program's own. Those of the format itself are
/// told by formatting once more with another character in their place.
__attribute__((format(printf, 2, 0))) void hide_foreign_line_controls(char* text,
                                                                      const char* szFormat,
                                                                      va_list arguments) {
    // A format of only "%s" passes on lines that the program has put together.
    if (strcmp(szFormat, "%s") == 0 || std::none_of(text, text + strlen(text), is_line_control)) {
        return;
    }
    // No allocation: a fault report is written this way too.
    char marked_format[log_message_size];
    char marked[log_message_size];
    snprintf(marked_format, sizeof(marked_format), "%s", szFormat);
    std::replace_if(marked_format, marked_format + strlen(marked_format), is_line_control, '\x01');
    vsnprintf(marked, sizeof(marked), marked_format, arguments);
    for (std::size_t i = 0; text[i] != '\0'; ++i) {
        if (is_line_control(text[i]) && marked[i] == text[i]) {
            text[i] = '?';
        }
    }
}

void write_to_console(const char* text) {
    fputs(text, stdout);
    fflush(stdout);
}

void write_to_trace(const char* text) {
    if (trace != nullptr) {
        trace->write_formatted_text(text);
    }
}

enum class Traced { yes, no };

__attribute__((format(printf, 3, 0))) void write_message(int Display, Traced traced,
                                                         const char* szFormat, va_list arguments) {
    char szBuffer[log_message_size];
    va_list arguments_again;
    va_copy(arguments_again, arguments);
    vsnprintf(szBuffer, sizeof(szBuffer), szFormat, arguments);
    write_to_log(szBuffer);
    if (traced == Traced::yes) {
        write_to_trace(szBuffer);
    }
    if (Display == 1 && OutputLevel >= 1) {
        if (console_is_terminal) {
            hide_foreign_line_controls(szBuffer, szFormat, arguments_again);
            hide_control_characters(szBuffer);
        }
        write_to_console(szBuffer);
    }
    va_end(arguments_again);
}

}  // namespace

void writelog(int Display, const char* szFormat, ...) {
    va_list arguments;
    va_start(arguments, szFormat);
    write_message(Display, Traced::yes, szFormat, arguments);
    va_end(arguments);
}

void writelog_notrace(int Display, const char* szFormat, ...) {
    va_list arguments;
    va_start(arguments, szFormat);
    write_message(Display, Traced::no, szFormat, arguments);
    va_end(arguments);
}

void writedebug(const char* szFormat, ...) {
    if (OutputLevel < debug_level) {
        return;
    }
    char szBuffer[debug_message_size];
    const int prefix = snprintf(szBuffer, sizeof(szBuffer), "%d:", OutputLevel);
    char* text = szBuffer + prefix;
    va_list arguments;
    va_start(arguments, szFormat);
    vsnprintf(text, sizeof(szBuffer) - static_cast<std::size_t>(prefix), szFormat, arguments);
    va_end(arguments);
    write_to_log(szBuffer);
    write_to_trace(text);
}

void ShowMessage(const char* /*szFormat*/, ...) {}

void prepare_console() {
    static std::array<char, stream_buffer_size> buffer;
    console_is_terminal = isatty(STDOUT_FILENO) != 0;
    setvbuf(stdout, buffer.data(), console_is_terminal ? _IOLBF : _IOFBF, buffer.size());
}

void open_log_file(const char* name) {
    static std::array<char, stream_buffer_size> buffer;
    FileDescriptor file =
        strcmp(name, default_log_filename) == 0 ? open_private_file(name) : open_for_append(name);
    const bool is_alone = !file.is_open() || claim_alone(file);
    if (file.is_open()) {
        if (is_alone) {
            cut_to_nothing(file);
        }
        share(file);
    }
    {
        const LogFileLock lock(log_file_in_use);
        hLogFile = stream_of(std::move(file), "ab").release();
        if (hLogFile != nullptr) {
            setvbuf(hLogFile, buffer.data(), _IOFBF, buffer.size());
        }
    }
    if (!is_alone) {
        writelog(0, "Another run writes to this log, which is not started anew\n");
    }
}

void close_log_file() {
    const LogFileLock lock = lock_log_file();
    if (lock.owns_lock() && hLogFile != nullptr) {
        fclose(hLogFile);
        hLogFile = nullptr;
    }
}
