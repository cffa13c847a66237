#include "trace_bytes.h"

#include "support/hexadecimal.h"

#include <cstring>

namespace {

std::string little_endian(std::uint64_t value, int size) {
    std::string bytes;
    for (int i = 0; i < size; ++i) {
        bytes += static_cast<char>(value >> (8 * i) & 0xFF);
    }
    return bytes;
}

std::string high_byte_first(unsigned int value) {
    return {static_cast<char>(value >> 8), static_cast<char>(value & 0xFF)};
}

}  // namespace

std::string RecordHeader::bytes(std::uint32_t length) const {
    std::uint64_t clock_bits = 0;
    std::memcpy(&clock_bits, &clock, sizeof(clock));
    return little_endian(length, 4) + little_endian(kind, 4) + little_endian(clock_bits, 8) +
           little_endian(thread, 4) + little_endian(process, 4) + little_endian(seconds, 4) +
           little_endian(component, 1) + little_endian(reserved, 1) +
           little_endian(milliseconds, 2);
}

TraceBytes& TraceBytes::version() {
    header_.kind = 501;
    RecordHeader header = header_;
    header.component = 0;
    bytes_ += header.bytes(16);
    return *this;
}

TraceBytes& TraceBytes::text(const std::string& text) {
    return append(42, text);
}

TraceBytes& TraceBytes::record(int payload) {
    const auto size = static_cast<std::uint64_t>(payload);
    const std::string message = little_endian(size + 6, 2) + std::string("\x02\x00", 2) +
                                little_endian(size, 1) + std::string(3, '\0') +
                                std::string(static_cast<std::size_t>(payload), 'x');
    return sent(to_hex(message));
}

TraceBytes& TraceBytes::transfer(std::uint32_t kind, unsigned int usage,
                                 const std::string& report) {
    return append(kind, high_byte_first(product_) + high_byte_first(usage) + std::string(4, '\0') +
                            from_hex(report));
}

TraceBytes& TraceBytes::append(std::uint32_t kind, const std::string& payload) {
    header_.kind = kind;
    bytes_ += header_.bytes(static_cast<std::uint32_t>(payload.size())) + payload;
    return *this;
}

TraceBytes begun_run() {
    TraceBytes trace;
    trace.version().text("Command line:  zelfwupdate -U\n");
    return trace;
}
