/// \file
/// Reads the binary trace file, by its layout and not by the program's code.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

struct TraceRecord {
    std::uint32_t length = 0;  ///< as the header says; the version record carries no payload
    std::uint32_t kind = 0;
    double clock = 0;
    std::uint32_t thread = 0;
    std::uint32_t process = 0;
    std::uint32_t seconds = 0;
    std::uint8_t component = 0;
    std::uint8_t reserved = 0;
    std::uint16_t milliseconds = 0;
    std::string payload;
};

/// The kinds of records.
namespace record_kind {
constexpr std::uint32_t version = 501;
constexpr std::uint32_t text = 42;
constexpr std::uint32_t written = 405;
constexpr std::uint32_t status = 406;
constexpr std::uint32_t feature = 407;
}  // namespace record_kind

/// The records of a file's content. Throws when it does not consist of whole records.
std::vector<TraceRecord> parse_trace(const std::string& content);
std::vector<TraceRecord> read_trace(const std::filesystem::path& path);

/// The payloads of the text records.
std::vector<std::string> trace_texts(const std::filesystem::path& path);
