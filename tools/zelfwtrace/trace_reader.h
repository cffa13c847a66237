/// \file
/// Reads a trace file record by record. One record is held at a time, whatever the file's size.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

/// One record of the file.
struct TraceEntry {
    std::uint64_t offset = 0;  ///< of its header in the file
    std::uint32_t kind = 0;    ///< a `trace_kind`
    double clock = 0;          ///< milliseconds since the run's first record
    std::uint32_t thread = 0;  ///< the lower 32 bits of its identity
    std::uint32_t process = 0;
    std::uint32_t seconds = 0;  ///< since the epoch
    std::uint16_t milliseconds = 0;
    std::string payload;

    bool is_transfer() const;
    /// Of a transfer: the product ID, the report's usage, and the report itself.
    std::uint16_t product() const;
    std::uint16_t usage() const;
    std::string_view report() const;
    std::int64_t time_in_milliseconds() const {
        return std::int64_t{seconds} * 1000 + milliseconds;
    }
};

/// Where a file stopped making sense, and why.
struct TraceDamage {
    std::uint64_t offset = 0;
    std::string reason;
};

class TraceReader {
  public:
    /// The stream stays the caller's, and stands at the file's beginning.
    explicit TraceReader(FILE* stream) : stream_(stream) {}

    /// Reads the next record. False at the end of the file, and from the first damage on.
    bool next(TraceEntry& entry);
    const std::optional<TraceDamage>& damage() const { return damage_; }

  private:
    /// Reads up to `size` bytes; fewer only at the end of the file or after an error.
    std::size_t read(char* buffer, std::size_t size);
    bool read_payload(TraceEntry& entry, std::size_t length);
    bool fail(const std::string& reason);

    FILE* stream_;
    std::uint64_t offset_ = 0;  ///< of the record that is being read
    int error_ = 0;
    std::optional<TraceDamage> damage_;
};
