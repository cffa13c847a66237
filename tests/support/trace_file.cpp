#include "support/trace_file.h"

#include "support/files.h"

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

std::vector<TraceRecord> parse_trace(const std::string& content) {
    std::vector<TraceRecord> records;
    for (std::size_t at = 0; at < content.size();) {
        if (content.size() - at < header_size) {
            throw std::runtime_error("the trace ends inside a header");
        }
        TraceRecord record = parse_header(content, at);
        at += header_size;
        // The one kind whose length speaks of bytes that do not follow.
        const std::size_t payload = record.kind == record_kind::version ? 0 : record.length;
        if (content.size() - at < payload) {
            throw std::runtime_error("the trace ends inside a record");
        }
        record.payload = content.substr(at, payload);
        at += payload;
        records.push_back(record);
    }
    return records;
}

std::vector<TraceRecord> read_trace(const std::filesystem::path& path) {
    return parse_trace(read_file(path));
}

std::vector<std::string> trace_texts(const std::filesystem::path& path) {
    std::vector<std::string> texts;
    for (const TraceRecord& record : read_trace(path)) {
        if (record.kind == record_kind::text) {
            texts.push_back(record.payload);
        }
    }
    return texts;
}
