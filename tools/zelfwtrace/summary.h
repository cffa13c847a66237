/// \file
/// What a trace tells about one device: counts, bytes, and how long the device took to answer.
#pragma once

#include "zelfwtrace/conversation.h"
#include "zelfwtrace/trace_reader.h"

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

/// The names of all messages that are sent, in the order in which a summary shows them.
const std::vector<std::string>& message_names();

/// Answer times are counted in ranges: 0 ms, 1 ms, 2 to 3 ms, 4 to 7 ms and so on.
constexpr std::size_t answer_time_ranges = 33;
std::uint64_t shortest_of_range(std::size_t range);
std::uint64_t longest_of_range(std::size_t range);

/// One kind of message.
struct MessageCount {
    std::uint64_t sent = 0;
    std::uint64_t bytes = 0;
    std::uint64_t answers = 0;
    std::uint64_t answer_time = 0;     ///< milliseconds, of all answers together
    std::uint32_t slowest = 0;         ///< milliseconds
    std::uint64_t slowest_offset = 0;  ///< of the message that was answered slowest
};

struct DeviceSummary {
    std::int64_t first = INT64_MAX;  ///< milliseconds since the epoch
    std::int64_t last = 0;
    std::vector<MessageCount> messages;  ///< as `message_names`
    std::uint64_t statuses = 0;
    std::uint64_t status_bytes = 0;
    std::uint64_t rejects = 0;
    std::uint64_t operation_errors = 0;
    std::uint64_t data_answers = 0;
    std::uint64_t data_bytes = 0;
    std::array<std::uint64_t, answer_time_ranges> answer_times{};

    DeviceSummary();
    void take(const TraceEntry& entry, const Meaning& meaning);
    /// All messages together.
    MessageCount total() const;
    /// The place of the slowest message in `messages`.
    std::size_t slowest_message() const;

  private:
    void take_status(const TraceEntry& entry, const Meaning& meaning);
};

/// By product ID.
using DeviceSummaries = std::map<std::uint16_t, DeviceSummary>;
