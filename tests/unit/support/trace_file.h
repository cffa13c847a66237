/// \file
/// Takes a trace file apart, record by record, from its bytes alone.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct TraceRecord {
    std::uint32_t length;
    std::uint32_t kind;
    double clock_time;
    std::uint32_t thread;
    std::uint32_t process;
    std::uint32_t time;
    std::uint8_t component;
    std::uint8_t reserved;
    std::uint16_t milliseconds;
    std::string payload;
};

/// The records of a file's content; throws when it does not consist of whole records.
std::vector<TraceRecord> parse_trace(const std::string& content);
std::vector<TraceRecord> read_trace(const std::string& path);

/// The payloads of the text records.
std::vector<std::string> trace_texts(const std::string& path);
