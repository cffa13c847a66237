/// \file
/// Reads a trace file record by record. Little more than one record is held at a time, whatever the
/// file's size.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

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
    /// Asked at the end of the file: true when there may be more by now.
    using WaitForMore = std::function<bool()>;

    /// The stream stays the caller's, and stands at the file's beginning.
    explicit TraceReader(FILE* stream, WaitForMore wait = {})
        : stream_(stream), wait_(std::move(wait)) {}

    /// Reads the next record. False at the end of the file, and at a damaged place.
    bool next(TraceEntry& entry);
    /// The damaged place at which `next` stopped.
    const std::optional<TraceDamage>& damage() const { return damage_; }
    /// Goes on behind the damaged place, at the next header that the program can have written.
    /// False when there is none; `offset` is where it stands, or the file ends, in either case.
    bool step_over_damage();
    std::uint64_t offset() const { return offset_; }
    /// Of a file that is damaged from its first byte on: what it is instead of a trace.
    const char* foreign() const { return foreign_; }

  private:
    /// Has `size` bytes of the file in `ahead_`; false when the file ends before.
    bool look_ahead(std::size_t size);
    bool read_more(std::size_t size);
    void drop(std::size_t size);
    /// Whether a record's length leads over the beginning of another one to no record at all.
    bool is_swallowing(std::size_t record_size);
    bool fail(const std::string& reason);
    bool fail_at_end(const char* within, std::size_t start, std::size_t size);

    FILE* stream_;
    WaitForMore wait_;
    std::string ahead_;  ///< read and not handed out yet, from `begin_` on
    std::size_t begin_ = 0;
    std::size_t handed_out_ = 0;  ///< bytes in front of `begin_` that are kept all the same
    std::uint64_t offset_ = 0;    ///< of the record that is being read
    int error_ = 0;
    const char* foreign_ = nullptr;
    std::optional<TraceDamage> damage_;
};
