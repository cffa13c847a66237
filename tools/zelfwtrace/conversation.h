/// \file
/// Follows the exchange of every process in a trace: which record of an image is on its way, which
/// command a status answers.
#pragma once

#include "zelfwtrace/message.h"
#include "zelfwtrace/trace_reader.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// What a record means where it stands.
struct Meaning {
    std::string message;  ///< "erase", "record", "status", "data", "text", "version"...
    std::string details;  ///< may be empty
    std::optional<int> component;
    /// Of an image record: its number from 1; and how many the image has, once that is known.
    std::optional<std::uint32_t> record, records;
    /// Of a status: the command that it answers, where that stands, and after how long.
    std::string answered;
    std::uint64_t answered_offset = 0;
    std::optional<std::uint32_t> answer_time;  ///< milliseconds

    /// "record 17 of 60", or the message itself.
    std::string title() const;
};

/// The number of records of each image, in the order of their erase commands; 0 where the file
/// does not tell.
using ImageTotals = std::vector<std::uint32_t>;

class Conversations {
  public:
    /// Without totals no record is told how many there are.
    explicit Conversations(ImageTotals totals = {}) : totals_(std::move(totals)) {}

    /// Takes the records one by one, in the order of the file.
    Meaning follow(const TraceEntry& entry);
    /// Records were lost here: what was under way before is forgotten.
    void forget() { conversations_.clear(); }
    /// The totals of the images that were complete so far.
    const ImageTotals& counted() const { return counted_; }

  private:
    /// One process at work.
    struct Conversation {
        std::uint32_t process = 0;
        std::uint64_t last_use = 0;
        int device_information_queries = 0;  ///< sent directly before
        bool in_image = false;
        std::size_t image = 0;  ///< of `in_image`: its place in the totals
        std::uint32_t records = 0;
        std::optional<std::uint32_t> announced;  ///< records of `image`, as a text said
        const CommandRow* query = nullptr;       ///< sent last
        std::string unanswered;  ///< name of the message sent last, until its answer
        std::uint64_t unanswered_offset = 0;
        double unanswered_clock = 0;
    };

    Conversation& conversation_of(const TraceEntry& entry);
    void begin_run(const TraceEntry& entry);
    Meaning follow_sent(Conversation& conversation, const TraceEntry& entry);
    void follow_image(Conversation& conversation, const SentMessage& message, Meaning& meaning);
    void follow_text(const TraceEntry& entry);
    static Meaning follow_status(Conversation& conversation, const TraceEntry& entry);

    ImageTotals totals_;
    ImageTotals counted_;
    std::size_t images_ = 0;
    std::uint64_t uses_ = 0;
    std::vector<Conversation> conversations_;
};
