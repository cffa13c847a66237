#include "support/trace_file.h"

#include "support/temporary_directory.h"

#include <cstring>
#include <stdexcept>

namespace {

constexpr std::size_t header_size = 32;

template <typename Value>
Value field(const std::string& bytes, std::size_t offset) {
    Value value = {};
    std::memcpy(&value, bytes.data() + offset, sizeof(value));
    return value;
}

TraceRecord parse_header(const std::string& bytes, std::size_t at) {
    TraceRecord record;
    record.length = field<std::uint32_t>(bytes, at);
    record.kind = field<std::uint32_t>(bytes, at + 4);
    record.clock = field<double>(bytes, at + 8);
    record.thread = field<std::uint32_t>(bytes, at + 16);
    record.process = field<std::uint32_t>(bytes, at + 20);
    record.seconds = field<std::uint32_t>(bytes, at + 24);
    record.component = field<std::uint8_t>(bytes, at + 28);
    record.reserved = field<std::uint8_t>(bytes, at + 29);
    record.milliseconds = field<std::uint16_t>(bytes, at + 30);
    return record;
}

}  // namespace

std::vector<TraceRecord> read_trace(const std::filesystem::path& path) {
    const std::string bytes = read_file(path);
    std::vector<TraceRecord> records;
    for (std::size_t at = 0; at < bytes.size();) {
        if (bytes.size() - at < header_size) {
            throw std::runtime_error("the trace ends inside a header");
        }
        TraceRecord record = parse_header(bytes, at);
        at += header_size;
        if (record.kind != trace_kind::version) {
            if (bytes.size() - at < record.length) {
                throw std::runtime_error("the trace ends inside a record");
            }
            record.payload = bytes.substr(at, record.length);
            at += record.length;
        }
        records.push_back(record);
    }
    return records;
}
