#include "support/trace_file.h"

#include "support/firmware_bytes.h"

#include <cstring>
#include <stdexcept>

namespace {

constexpr std::size_t header_size = 32;
constexpr std::uint32_t version_kind = 501;
constexpr std::uint32_t text_kind = 42;

std::uint64_t little_endian(const std::string& content, std::size_t offset, std::size_t size) {
    std::uint64_t value = 0;
    for (std::size_t i = size; i > 0; --i) {
        value = value << 8U | static_cast<unsigned char>(content.at(offset + i - 1));
    }
    return value;
}

double floating_point(const std::string& content, std::size_t offset) {
    const std::uint64_t bits = little_endian(content, offset, 8);
    double value = 0;
    static_assert(sizeof(value) == sizeof(bits));
    std::memcpy(&value, &bits, sizeof(value));
    return value;
}

}  // namespace

std::vector<TraceRecord> parse_trace(const std::string& content) {
    std::vector<TraceRecord> records;
    for (std::size_t at = 0; at < content.size();) {
        if (content.size() - at < header_size) {
            throw std::runtime_error("a trace header is cut short");
        }
        const auto word = [&](std::size_t offset) {
            return static_cast<std::uint32_t>(little_endian(content, at + offset, 4));
        };
        TraceRecord record = {};
        record.length = word(0);
        record.kind = word(4);
        record.clock_time = floating_point(content, at + 8);
        record.thread = word(16);
        record.process = word(20);
        record.time = word(24);
        record.component = static_cast<std::uint8_t>(content[at + 28]);
        record.reserved = static_cast<std::uint8_t>(content[at + 29]);
        record.milliseconds = static_cast<std::uint16_t>(little_endian(content, at + 30, 2));
        at += header_size;
        // The one kind whose length speaks of bytes that do not follow.
        const std::size_t payload = record.kind == version_kind ? 0 : record.length;
        if (content.size() - at < payload) {
            throw std::runtime_error("a trace record is cut short");
        }
        record.payload = content.substr(at, payload);
        at += payload;
        records.push_back(record);
    }
    return records;
}

std::vector<TraceRecord> read_trace(const std::string& path) {
    return parse_trace(read_whole_file(path));
}

std::vector<std::string> trace_texts(const std::string& path) {
    std::vector<std::string> texts;
    for (const TraceRecord& record : read_trace(path)) {
        if (record.kind == text_kind) {
            texts.push_back(record.payload);
        }
    }
    return texts;
}
