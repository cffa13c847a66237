/// \file
/// How far an image's records have come, and how fast they go.
#pragma once

#include "zelfwtrace/conversation.h"
#include "zelfwtrace/trace_reader.h"

#include <cstdint>
#include <optional>
#include <string>

class RecordPace {
  public:
    /// A record of an image was sent.
    void take_record(const TraceEntry& entry, const Meaning& meaning);
    /// The record sent last was answered with a good status.
    void take_answer(const TraceEntry& entry);

    /// "3c35  component 0  record 17 of 50  34 %  5.2 b/s  0:12 left"; what the trace does not
    /// tell is left out.
    std::string line() const;
    /// The same of records to which none will be added: "... after 0:31".
    std::string last_line() const;

  private:
    std::string beginning() const;
    double milliseconds() const { return last_clock_ - first_clock_; }

    std::uint16_t product_ = 0;
    std::optional<int> component_;
    std::uint32_t record_ = 0;  ///< sent last
    std::optional<std::uint32_t> records_;
    std::uint64_t bytes_sent_ = 0;  ///< of the records that were seen
    std::uint32_t answered_ = 0;    ///< likewise
    std::uint64_t bytes_answered_ = 0;
    bool is_answered_ = false;  ///< the record sent last
    double first_clock_ = 0;    ///< when the first one that was seen was sent
    double last_clock_ = 0;     ///< of the last answer
};
