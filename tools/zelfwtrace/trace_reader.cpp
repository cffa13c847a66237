#include "zelfwtrace/trace_reader.h"

#include "common/time_text.h"
#include "journal/zelfwtrace.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

namespace {

constexpr std::size_t header_size = sizeof(traceStruct3);
constexpr std::size_t kind_end = offsetof(traceStruct3, minorCode) + sizeof(std::uint32_t);
constexpr std::size_t usage_offset = 2;
/// The longest report that the program can hand over has a 16-bit length.
constexpr std::size_t longest_transfer = trace_prefix_size + 0xFFFF;
/// No system counts its processes higher.
constexpr std::uint32_t highest_process = 1U << 22U;

/// What the first line of the text log begins with.
constexpr std::string_view log_beginnings[] = {"Quenta Firmware Update Utility",
                                               "\nQuenta Firmware Update Utility"};

/// A little-endian field of the header, on any machine.
std::uint64_t field(const char* header, std::size_t offset, std::size_t size) {
    std::uint64_t value = 0;
    for (std::size_t i = size; i > 0; --i) {
        value = value << 8U | static_cast<unsigned char>(header[offset + i - 1]);
    }
    return value;
}

template <typename Value>
Value number(const char* header, std::size_t offset) {
    return static_cast<Value>(field(header, offset, sizeof(Value)));
}

double clock_field(const char* header) {
    const std::uint64_t bits = field(header, offsetof(traceStruct3, clockTime), sizeof(double));
    double value = 0;
    static_assert(sizeof(value) == sizeof(bits));
    std::memcpy(&value, &bits, sizeof(value));
    return value;
}

bool is_transfer_kind(std::uint32_t kind) {
    return kind == trace_kind::report_written || kind == trace_kind::status_read ||
           kind == trace_kind::feature_read;
}

/// What is wrong with a header's kind and length; empty when nothing is.
std::string fault_of_length(std::uint32_t kind, std::uint32_t length) {
    const std::string bytes = std::to_string(length) + " bytes";
    if (kind == trace_kind::version) {
        return length == version_record_length ? "" : "a version record cannot claim " + bytes;
    }
    if (kind == trace_kind::text) {
        return length < max_trace_text ? "" : "a text of " + bytes + " is too long";
    }
    if (!is_transfer_kind(kind)) {
        return "no kind of record has the number " + std::to_string(kind);
    }
    if (length < trace_prefix_size) {
        return "a transfer of " + bytes + " is too short";
    }
    return length <= longest_transfer ? "" : "a transfer of " + bytes + " is too long";
}

/// What is wrong with a header's other fields; empty when nothing is.
std::string fault_of_fields(const char* header, const TraceEntry& entry) {
    if (entry.milliseconds >= zelf::milliseconds_of_a_second) {
        return "a second has no millisecond " + std::to_string(entry.milliseconds);
    }
    if (header[offsetof(traceStruct3, reserved)] != 0) {
        return "the reserved byte is not 0";
    }
    // The version record keeps the time zone there.
    if (entry.kind != trace_kind::version &&
        number<std::uint8_t>(header, offsetof(traceStruct3, component)) != trace_data_component) {
        return "the component byte is not that of a trace";
    }
    const bool is_clock =
        entry.clock >= 0 && entry.clock <= UINT32_MAX && std::floor(entry.clock) == entry.clock;
    return is_clock ? "" : "the clock is no number of milliseconds";
}

/// The fields of a header, all but the length.
TraceEntry header_fields(const char* header) {
    TraceEntry entry;
    entry.kind = number<std::uint32_t>(header, offsetof(traceStruct3, minorCode));
    entry.clock = clock_field(header);
    entry.thread = number<std::uint32_t>(header, offsetof(traceStruct3, tid));
    entry.process = number<std::uint32_t>(header, offsetof(traceStruct3, pid));
    entry.seconds = number<std::uint32_t>(header, offsetof(traceStruct3, time));
    entry.milliseconds = number<std::uint16_t>(header, offsetof(traceStruct3, milliseconds));
    return entry;
}

std::uint32_t length_field(const char* header) {
    return number<std::uint32_t>(header, offsetof(traceStruct3, length));
}

/// What is wrong with a header; empty when nothing is.
std::string fault_of(const char* header, const TraceEntry& entry) {
    const std::string fault = fault_of_length(entry.kind, length_field(header));
    return fault.empty() ? fault_of_fields(header, entry) : fault;
}

bool has_known_kind(const char* header) {
    const auto kind = number<std::uint32_t>(header, offsetof(traceStruct3, minorCode));
    return kind == trace_kind::version || kind == trace_kind::text || is_transfer_kind(kind);
}

/// Whether a record can begin here, in bytes that may be anything.
bool is_plausible_header(const char* header) {
    if (!has_known_kind(header)) {
        return false;
    }
    const TraceEntry entry = header_fields(header);
    return fault_of(header, entry).empty() && entry.process > 0 && entry.process <= highest_process;
}

/// What a file is that begins with these bytes, which are no header.
const char* foreign_words(std::string_view beginning) {
    for (const std::string_view line : log_beginnings) {
        if (beginning.starts_with(line.substr(0, beginning.size()))) {
            return "this is no trace; it looks like the text log";
        }
    }
    return "this is no trace";
}

}  // namespace

bool TraceEntry::is_transfer() const {
    return is_transfer_kind(kind) && payload.size() >= trace_prefix_size;
}

std::uint16_t TraceEntry::product() const {
    const auto byte = [this](std::size_t i) { return static_cast<unsigned char>(payload.at(i)); };
    return static_cast<std::uint16_t>(byte(0) << 8 | byte(1));
}

std::uint16_t TraceEntry::usage() const {
    const auto byte = [this](std::size_t i) { return static_cast<unsigned char>(payload.at(i)); };
    return static_cast<std::uint16_t>(byte(usage_offset) << 8 | byte(usage_offset + 1));
}

std::string_view TraceEntry::report() const {
    return std::string_view(payload).substr(trace_prefix_size);
}

bool TraceReader::fail(const std::string& reason) {
    damage_ = TraceDamage{offset_, reason};
    return false;
}

bool TraceReader::fail_at_end(const char* within, std::size_t start, std::size_t size) {
    if (error_ != 0) {
        return fail(strerror(error_));
    }
    return fail(std::string("the file ends inside a record") + within + ", after " +
                std::to_string(ahead_.size() - begin_ - start) + " of " +
                (start == 0 ? "" : "its ") + std::to_string(size) + " bytes");
}

bool TraceReader::read_more(std::size_t size) {
    ahead_.erase(0, begin_ - handed_out_);
    begin_ = handed_out_;
    const std::size_t old_size = ahead_.size();
    ahead_.resize(old_size + size);
    errno = 0;
    const std::size_t got = fread(ahead_.data() + old_size, 1, size, stream_);
    error_ = ferror(stream_) != 0 ? (errno != 0 ? errno : EIO) : 0;
    ahead_.resize(old_size + got);
    return got > 0 && error_ == 0;
}

bool TraceReader::look_ahead(std::size_t size) {
    while (ahead_.size() - begin_ < size) {
        if (read_more(size - (ahead_.size() - begin_))) {
            continue;
        }
        if (error_ != 0 || !wait_ || !wait_()) {
            return false;
        }
        clearerr(stream_);
    }
    return true;
}

void TraceReader::drop(std::size_t size) {
    begin_ += size;
    offset_ += size;
}

bool TraceReader::is_swallowing(std::size_t record_size) {
    for (std::size_t at = header_size; at + kind_end <= record_size; ++at) {
        if (!has_known_kind(ahead_.data() + begin_ + at)) {
            continue;
        }
        const bool has_next = look_ahead(record_size + header_size);
        const char* record = ahead_.data() + begin_;
        const std::size_t size = ahead_.size() - begin_;
        if (at + header_size <= size && is_plausible_header(record + at)) {
            return has_next ? !is_plausible_header(record + record_size) : size > record_size;
        }
    }
    return false;
}

bool TraceReader::next(TraceEntry& entry) {
    if (damage_) {
        return false;
    }
    if (!look_ahead(header_size)) {
        const bool is_end = begin_ == ahead_.size() && error_ == 0;
        return is_end ? false : fail_at_end("'s header", 0, header_size);
    }
    const char* header = ahead_.data() + begin_;
    entry = header_fields(header);
    entry.offset = offset_;
    if (const std::string fault = fault_of(header, entry); !fault.empty()) {
        if (offset_ == 0) {
            foreign_ = foreign_words({header, header_size});
        }
        return fail(fault);
    }
    const std::size_t length = entry.kind == trace_kind::version ? 0 : length_field(header);
    if (!look_ahead(header_size + length)) {
        return fail_at_end("", header_size, length);
    }
    if (is_swallowing(header_size + length)) {
        return fail("another record begins inside the " + std::to_string(length) +
                    " bytes of this one");
    }
    entry.payload.assign(ahead_, begin_ + header_size, length);
    drop(header_size + length);
    handed_out_ = std::min(length, header_size - 1);
    return true;
}

bool TraceReader::step_over_damage() {
    if (!damage_ || error_ != 0) {
        return false;
    }
    // The record before may have been half a one, with the beginning of this one at its end.
    if (handed_out_ > 0) {
        begin_ -= handed_out_;
        offset_ -= handed_out_;
        handed_out_ = 0;
    } else if (begin_ < ahead_.size()) {
        drop(1);
    }
    while (look_ahead(header_size)) {
        if (offset_ != damage_->offset && is_plausible_header(ahead_.data() + begin_)) {
            damage_.reset();
            return true;
        }
        drop(1);
    }
    drop(ahead_.size() - begin_);
    return false;
}
