#include "zelfwtrace/trace_reader.h"

#include "journal/zelfwtrace.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

namespace {

constexpr std::size_t header_size = sizeof(traceStruct3);
constexpr std::size_t usage_offset = 2;
/// The longest report that the program can hand over has a 16-bit length.
constexpr std::size_t longest_transfer = trace_prefix_size + 0xFFFF;
constexpr unsigned int milliseconds_of_a_second = 1000;

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
    if (entry.milliseconds >= milliseconds_of_a_second) {
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

std::size_t TraceReader::read(char* buffer, std::size_t size) {
    errno = 0;
    const std::size_t got = fread(buffer, 1, size, stream_);
    error_ = ferror(stream_) != 0 ? (errno != 0 ? errno : EIO) : 0;
    return got;
}

bool TraceReader::next(TraceEntry& entry) {
    if (damage_) {
        return false;
    }
    char header[header_size];
    const std::size_t got = read(header, header_size);
    if (error_ != 0) {
        return fail(strerror(error_));
    }
    if (got == 0) {
        return false;
    }
    if (got < header_size) {
        return fail("the file ends inside a record's header, after " + std::to_string(got) +
                    " of " + std::to_string(header_size) + " bytes");
    }
    entry.offset = offset_;
    entry.kind = number<std::uint32_t>(header, offsetof(traceStruct3, minorCode));
    entry.clock = clock_field(header);
    entry.thread = number<std::uint32_t>(header, offsetof(traceStruct3, tid));
    entry.process = number<std::uint32_t>(header, offsetof(traceStruct3, pid));
    entry.seconds = number<std::uint32_t>(header, offsetof(traceStruct3, time));
    entry.milliseconds = number<std::uint16_t>(header, offsetof(traceStruct3, milliseconds));
    const auto length = number<std::uint32_t>(header, offsetof(traceStruct3, length));
    std::string fault = fault_of_length(entry.kind, length);
    if (fault.empty()) {
        fault = fault_of_fields(header, entry);
    }
    if (!fault.empty()) {
        return fail(fault);
    }
    return read_payload(entry, entry.kind == trace_kind::version ? 0 : length);
}

bool TraceReader::read_payload(TraceEntry& entry, std::size_t length) {
    entry.payload.resize(length);
    const std::size_t got = read(entry.payload.data(), length);
    if (error_ != 0) {
        return fail(strerror(error_));
    }
    if (got < length) {
        return fail("the file ends inside a record, after " + std::to_string(got) + " of its " +
                    std::to_string(length) + " bytes");
    }
    offset_ += header_size + length;
    return true;
}
