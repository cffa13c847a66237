#include "session/exchange.h"

#include "firmware/firmware_file.h"
#include "flash_protocol.h"
#include "journal/output.h"
#include "journal/zelfwtrace.h"
#include "process/wire_silence.h"
#include "session/zelflash.h"
#include "settings.h"
#include "usb/flshusbintf.h"
#include "usb/zelflshhid.h"

#include <sys/select.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace {

constexpr unsigned long pause_before_request = 10;  // milliseconds
constexpr unsigned long pause_before_retry = 500;   // milliseconds
constexpr std::size_t record_message_size = 1024;

/// An image data message under construction.
class ImageMessage {
  public:
    ImageMessage() { at(image_message::operation_byte) = image_message::operation; }

    void set_record(const FirmwareRecord& record) {
        const auto body = record.read_bytes().subspan(1);
        std::copy(body.begin(), body.end(), bytes_.begin() + image_message::body_start);
        set_lengths(record.length(), static_cast<int>(body.size()));
    }
    void set_checksum(const std::array<std::uint8_t, firmware_checksum_size>& checksum) {
        std::copy(checksum.begin(), checksum.end(), bytes_.begin() + image_message::body_start);
        set_lengths(0, firmware_checksum_size);
        at(0) = image_message::checksum_count;
    }
    /// Makes the record one of `component`: in its tag, or, for a record about the whole file, in
    /// the first component that its list names.
    void override_component(int component) {
        const bool about_the_file = at(image_message::body_start) == file_information_tag &&
                                    at(image_message::body_start + 1) == 0;
        std::uint8_t& byte =
            at(about_the_file ? image_message::first_listed_component : image_message::body_start);
        const int kept = byte & (about_the_file ? 0xF0 : 0x0F);
        byte =
            static_cast<std::uint8_t>(kept | (about_the_file ? component & 0x0F : component << 4));
    }

    char* data() { return reinterpret_cast<char*>(bytes_.data()); }
    unsigned int size() const { return size_; }

  private:
    std::uint8_t& at(std::size_t offset) { return bytes_[offset]; }
    void set_lengths(int length, int body_size) {
        const int count = length + image_message::count_beside_payload;
        at(0) = static_cast<std::uint8_t>(count & 0xFF);
        at(1) = static_cast<std::uint8_t>(count >> 8);
        at(image_message::length_byte) = static_cast<std::uint8_t>(length);
        size_ = static_cast<unsigned int>(body_size) + image_message::body_start;
    }

    std::array<std::uint8_t, record_message_size> bytes_{};
    unsigned int size_ = 0;
};
static_assert(firmware_record_max_size + 4 <= record_message_size);

/// Progress that goes to the console alone.
void print_progress(const char* text) {
    if (OutputLevel >= 1) {
        fprintf(stdout, "%s", text);
        fflush(stdout);
    }
}

/// Journals a transfer: product ID and usage, high bytes first, four zero bytes, the bytes
/// themselves.
void trace_transfer(std::uint32_t kind, const HIDDEVICE2& device, unsigned short usage,
                    const char* data, unsigned int length) {
    if (trace == nullptr) {
        return;
    }
    const int product = device.intf != nullptr ? device.intf->GetProductID() : device.ProductID;
    const std::array<unsigned char, trace_prefix_size> prefix = {
        static_cast<unsigned char>(product >> 8), static_cast<unsigned char>(product & 0xFF),
        static_cast<unsigned char>(usage >> 8), static_cast<unsigned char>(usage & 0xFF)};
    trace->WriteTraceData(kind, prefix, {reinterpret_cast<const unsigned char*>(data), length});
}

/// A report that came earlier must not count as the answer to what is sent now.
void forget_earlier_status(ZELFLASH& session) {
    if (session.use_thread_reading == 1) {
        session.reset_ready_status();
    }
}

int send_without_status(ZELFLASH& session, FlashCommand command) {
    forget_earlier_status(session);
    CommandMessage message = flash_command(command);
    return session.write_flash(message.bytes.data(), static_cast<unsigned int>(message.length));
}

void show_record_started(ZELFLASH& session, int record_count) {
    if (OutputLevel < 1) {
        return;
    }
    if (old_progress == 1) {
        print_progress("r");
    } else {
        session.display_percentage(record_count);
    }
}

}  // namespace

/// A message to the device; `timeout` is that of `read_flash`.
struct ZELFLASH::Question {
    char* bytes;
    unsigned int length;
    int timeout;
    bool is_answered = true;   ///< a status report is waited for
    bool is_narrated = false;  ///< both steps show in the debug log
};

struct ZELFLASH::Answer {
    int rc = 0;              ///< of the write, or else of the read
    bool is_asked = false;   ///< the write succeeded
    std::uint8_t flags = 0;  ///< of the status report
};

int send_query(ZELFLASH& session, FlashCommand command, int component, int index) {
    CommandMessage message = flash_command(command, component);
    return session.send_command(message.bytes.data(), message.length, index, information_timeout);
}

std::uint8_t last_status_flags(const ZELFLASH& session) {
    return AnswerView(session.last_status, sizeof(session.last_status))[0];
}

void ZELFLASH::reset_ready_status() {
    status_ready = 0;
}

int ZELFLASH::chSleep(unsigned long milliseconds) {
    timeval remaining = {static_cast<time_t>(milliseconds / 1000),
                         static_cast<suseconds_t>(milliseconds % 1000 * 1000)};
    // A signal that is held back ends the call early; the time that is left stands in `remaining`.
    while (select(0, nullptr, nullptr, nullptr, &remaining) < 0 && errno == EINTR) {
    }
    return 0;
}

int ZELFLASH::write_flash(char* buffer, unsigned int length) {
    if (hiddev == nullptr) {
        return FLASHWRITEERROR;
    }
    trace_transfer(trace_kind::report_written, *hiddev, flash_usage::command, buffer, length);
    hex_display("Report written", buffer, static_cast<int>(length));
    const int rc = hiddev->Write(flash_usage::page, flash_usage::command, buffer,
                                 static_cast<unsigned short>(length));
    if (rc == 0) {
        note_wire_movement();
    }
    writedebug("WriteFlash rc=%d\n", rc);
    return rc;
}

int ZELFLASH::read_flash(char* buffer, unsigned int length, int timeout, int index) {
    if (use_thread_reading == 1 && timeout >= 1) {
        return wait_for_message(timeout, buffer, static_cast<int>(length), index);
    }
    return read_report(buffer, length);
}

int ZELFLASH::read_report(char* buffer, unsigned int length) {
    HIDDEVICE2* const device = hiddev.get();
    if (device == nullptr) {
        return FLASHREADERROR;
    }
    writedebug("Sending Read Request to %04x\n", flash_usage::status);
    const int rc = device->Read(flash_usage::page, flash_usage::status, buffer,
                                static_cast<unsigned short>(length));
    writedebug("Reading data from %04x returned rc=%d\n", flash_usage::status, rc);
    if (rc != 0) {
        writelog(0, "Read Request to %04x failed, rc=%d\n", flash_usage::status, rc);
        return rc;
    }
    note_wire_movement();
    trace_transfer(trace_kind::status_read, *device, flash_usage::status, buffer, length);
    hex_display("Status report read", buffer, static_cast<int>(length));
    return 0;
}

int ZELFLASH::wait_for_message(int timeout, char* buffer, int length, int index) {
    sleep_time = std::max(sleep_time, shortest_sleep_time);
    const thread_table& slot = ThreadTable[index];
    int loop_count = timeout / sleep_time;
    writedebug(
        "wait_for_message(timeout=%d, length=%d), loop_count=%d, sleep_time=%d, status_ready=%d, "
        "device_closed=%d\n",
        timeout, length, loop_count, sleep_time, status_ready, slot.device_closed);
    int rc = status_ready == 0 && loop_count < 1 ? exchange_timed_out : 0;
    while (rc == 0 && status_ready == 0) {
        if (slot.device_closed == 1) {
            rc = exchange_device_closed;
            break;
        }
        if (OutputLevel > 3) {
            writedebug("sleeping while waiting (status_ready=%d, device_closed=%d)\n", status_ready,
                       slot.device_closed);
        }
        chSleep(static_cast<unsigned long>(sleep_time));
        if (status_ready == 0 && --loop_count < 1) {
            rc = exchange_timed_out;
        }
    }
    int data_length = 0;
    if (rc == 0 && status_ready == 1) {
        data_length = std::clamp(length, 0, status_report_size);
        memcpy(buffer, last_status, static_cast<std::size_t>(data_length));
        const AnswerView report(last_status, sizeof(last_status));
        writedebug(
            "status_ready=%d copying %d bytes to buffer (%02x.%02x.%02x.%02x.%02x.%02x.%02x.%02x) "
            "length=%d, sizeof(status)=%d\n",
            status_ready, data_length, report[0], report[1], report[2], report[3], report[4],
            report[5], report[6], report[7], length, status_report_size);
    } else if (rc == 0) {
        rc = exchange_timed_out;
    }
    writedebug(
        "wait_for_message: returning rc=%d status_ready=%d device_closed=%d data_length=%d\n", rc,
        status_ready, slot.device_closed, data_length);
    status_ready = 0;
    return rc;
}

int ZELFLASH::read_data(char* buffer, unsigned int length) {
    if (hiddev == nullptr) {
        return FLASHREADERROR;
    }
    const auto short_length = static_cast<unsigned short>(length);
    unsigned short usage = flash_usage::data;
    writedebug("Sending Get Feature Report to %04x\n", usage);
    int rc = hiddev->GetFeature(flash_usage::page, usage, buffer, short_length);
    writedebug("Get Feature Report on %04x returned rc=%d\n", usage, rc);
    if (rc != 0) {
        writelog(0, "Get Feature Report %04x rc=%d\n", usage, rc);
        usage = flash_usage::fallback_data;
        writedebug("Sending Get Feature Report to %04x\n", usage);
        rc = hiddev->GetFeature(flash_usage::page, usage, buffer, short_length);
        if (rc != 0) {
            writelog(0, "Get Feature Report %04x rc=%d\n", usage, rc);
            return rc;
        }
    }
    note_wire_movement();
    trace_transfer(trace_kind::feature_read, *hiddev, usage, buffer, length);
    hex_display("Feature report read", buffer, static_cast<int>(length));
    return 0;
}

int ZELFLASH::send_status_request() {
    chSleep(pause_before_request);
    return send_without_status(*this, FlashCommand::status_request);
}

int ZELFLASH::send_reset_command() {
    return send_without_status(*this, FlashCommand::reset);
}

int ZELFLASH::send_stop_command() {
    return send_without_status(*this, FlashCommand::stop);
}

ZELFLASH::Answer ZELFLASH::ask(const Question& question, int index) {
    forget_earlier_status(*this);
    if (question.is_answered) {
        answer_count.message_sent();
    }
    Answer answer;
    answer.rc = write_flash(question.bytes, question.length);
    answer.is_asked = answer.rc == 0;
    if (question.is_narrated) {
        writedebug("send_command: write_flash returned - rc=%d, last_status=%02x\n", answer.rc,
                   last_status_flags(*this));
    }
    if (!answer.is_asked || !question.is_answered) {
        return answer;
    }
    // Into a buffer of its own: the reader clears `status` when it starts its next read.
    char report[status_report_size] = {};
    answer.rc = read_flash(report, sizeof(report), question.timeout, index);
    answer.flags = AnswerView(report, sizeof(report))[0];
    if (question.is_narrated) {
        writedebug("send_command: read_flash returned - rc=%d, status[0]=%02x last_status=%02x\n",
                   answer.rc, answer.flags, last_status_flags(*this));
    }
    return answer;
}

int ZELFLASH::send_command(char* command, int length, int index, int timeout) {
    const Question question = {.bytes = command,
                               .length = static_cast<unsigned int>(length),
                               .timeout = timeout,
                               .is_answered = timeout >= 1,
                               .is_narrated = true};
    const Answer answer = ask(question, index);
    if (answer.rc != 0) {
        writedebug(answer.is_asked ? "Read failed on status of command, rc=%d\n"
                                   : "Write failed on status of erase command, rc=%d\n",
                   answer.rc);
        return answer.rc;
    }
    int rc = 0;
    std::uint8_t flags = answer.flags;
    if ((flags & status_flag::reject) != 0) {
        if (global_reading_information != 0) {
            writedebug("Command reject sending command\n");
            rc = FLASHWRITEERROR;
        } else {
            rc = resend_command(command, length, index, timeout, flags);
        }
    } else if ((flags & status_flag::operation_error) != 0) {
        writedebug("Operation error on sending command, stop flash operation\n");
        rc = FLASHWRITEERROR;
    }
    if ((flags & status_flag::completed) != 0) {
        writedebug("Command completed\n");
    }
    return rc;
}

int ZELFLASH::resend_command(char* command, int length, int index, int timeout,
                             std::uint8_t& flags) {
    writedebug("Command reject sending command trying one more time\n");
    chSleep(pause_before_retry);
    const Answer answer = ask(
        {.bytes = command, .length = static_cast<unsigned int>(length), .timeout = timeout}, index);
    flags = answer.rc == 0 ? answer.flags : std::uint8_t{0};
    if (answer.rc != 0) {
        return answer.rc;
    }
    if (is_bad_status(flags)) {
        writelog(0, "Bad status (%02x) on resend of command, stop flash operation\n", flags);
        return FLASHWRITEERROR;
    }
    return 0;
}

int ZELFLASH::send_erase_command(int index) {
    CommandMessage message = flash_command(FlashCommand::erase);
    const Question erase = {.bytes = message.bytes.data(),
                            .length = static_cast<unsigned int>(message.length),
                            .timeout = erase_timeout};
    chSleep(pause_before_request);
    Answer answer = ask(erase, index);
    if (answer.rc != 0) {
        writelog(Verbose,
                 answer.is_asked ? "Read failed on status of erase command, rc=%d\n"
                                 : "Write failed on status of erase command, rc=%d\n",
                 answer.rc);
        return answer.rc;
    }
    if ((answer.flags & status_flag::reject) == 0) {
        if ((answer.flags & status_flag::operation_error) == 0) {
            return 0;
        }
        writelog(Verbose, "Operation error on erase of image, stop flash operation\n");
        return FLASHWRITEERROR;
    }
    writelog(Verbose, "Command reject erasing image, trying one more time\n");
    chSleep(pause_before_retry);
    answer = ask(erase, index);
    if (answer.rc == 0 && is_bad_status(answer.flags)) {
        writelog(Verbose, "Bad status (%02x) on second erase of image, stop flash operation\n",
                 answer.flags);
        return FLASHWRITEERROR;
    }
    return answer.rc;
}

int ZELFLASH::send_firmware_file_data(FILE* stream, int index) {
    old_percentage = 0;
    if (stream == nullptr) {
        return FLASHFILEBAD;
    }
    int rc = fseek(stream, firmware_header_size, SEEK_SET) == 0 ? send_records(stream, index)
                                                                : FILECORRUPTED;
    print_progress("\n");
    if (rc != 0) {
        return rc;
    }
    writelog(Verbose, "Main part of firmware update done, now sending checksum\n");
    return send_checksum(stream, index);
}

int ZELFLASH::send_records(FILE* stream, int index) {
    FirmwareRecordReader records(stream);
    FirmwareRecord record;
    for (int record_count = 1;; ++record_count) {
        const RecordResult result = records.next(record);
        if (result == RecordResult::end_mark) {
            return 0;
        }
        if (result == RecordResult::end_of_file || result == RecordResult::read_error) {
            print_progress("\n");
            writelog(1, "File corrupted, stopping update\n");
            return FILECORRUPTED;
        }
        show_record_started(*this, record_count);
        if (result == RecordResult::short_body) {
            continue;
        }
        const int rc = send_record(record, index);
        if (rc != 0) {
            return rc;
        }
        if (old_progress == 1) {
            print_progress("w");
        }
    }
}

int ZELFLASH::send_record(const FirmwareRecord& record, int index) {
    ImageMessage message;
    message.set_record(record);
    if (comp_update_id > 0) {
        message.override_component(comp_update_id);
    }
    const Answer answer =
        ask({.bytes = message.data(), .length = message.size(), .timeout = command_timeout}, index);
    if (answer.rc != 0) {
        if (answer.is_asked) {
            writelog(Verbose, "Read failed on status of command, rc=%d\n", answer.rc);
        }
        return answer.rc;
    }
    // A record's answer need not carry the completed flag.
    if (is_bad_status(answer.flags)) {
        writelog(Verbose, "Bad status (%02x) on write of record, stopping firmware update\n",
                 answer.flags);
        return FLASHWRITEERROR;
    }
    return 0;
}

int ZELFLASH::send_checksum(FILE* stream, int index) {
    std::array<std::uint8_t, firmware_checksum_size> checksum = {};
    if (FirmwareRecordReader(stream).read_checksum(checksum) != firmware_checksum_size) {
        writelog(1, "Firmware update file apparently bad\n");
        return FLASHFILEBAD;
    }
    ImageMessage message;
    message.set_checksum(checksum);
    const Answer answer = ask(
        {.bytes = message.data(), .length = message.size(), .timeout = checksum_timeout}, index);
    if (answer.rc != 0) {
        if (!answer.is_asked) {
            return answer.rc;
        }
        writelog(Verbose, "Read of checksm write status failed\n");
        return FLASHWRITEERROR;
    }
    if (is_bad_status(answer.flags)) {
        writelog(Verbose, "Bad status (%02x) on write of checksum\n", answer.flags);
        return FLASHWRITEERROR;
    }
    writelog(Verbose, "Checksums written\n");
    return 0;
}
