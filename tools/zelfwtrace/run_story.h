/// \file
/// What happened in each run of a trace: which device and component was worked on, how far that
/// came, and all that went wrong on the way, in the order of the trace.
#pragma once

#include "zelfwtrace/causes.h"
#include "zelfwtrace/conversation.h"
#include "zelfwtrace/trace_reader.h"

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// A line of the log, or a message in its words.
struct StoryLine {
    std::uint64_t offset = 0;  ///< in the trace
    double clock = 0;          ///< milliseconds since the run began
    std::string text;
};

/// Something that went wrong.
struct Finding {
    const Cause* cause = nullptr;
    StoryLine line;
    bool is_after_reset = false;
    bool is_overcome = false;  ///< the device took the same image's messages afterwards
};

/// A message of the exchange, and its answer.
struct WireMessage {
    StoryLine sent;
    std::string name;
    std::optional<StoryLine> answer;
    bool is_lost = false;  ///< its transfer failed
};

/// How far an image came.
struct ImageProgress {
    bool erase_sent = false;
    bool is_erased = false;
    std::uint32_t records_sent = 0;
    std::uint32_t records_taken = 0;  ///< answered with a good status
    std::optional<std::uint32_t> records;
    std::uint64_t offset = 0;  ///< in the firmware file, of the record that was sent last
    std::uint64_t next_offset = 0;
    double first_clock = 0;  ///< of the first record
    double last_clock = 0;   ///< of the last good answer
    bool checksum_sent = false;
    bool is_complete = false;  ///< the checksum was answered with a good status
};

/// One device, or one of its components, and what was to be done with it.
struct Attempt {
    enum class Kind { query, update, reset, read };

    Kind kind = Kind::query;
    unsigned int product = 0;
    std::optional<int> component;
    std::optional<std::string> serial;
    std::string place;  ///< hub and port, where a path tells them
    std::string file;
    std::string level_before, level_after;
    StoryLine begin;
    double end = 0;
    bool is_over = false;
    std::optional<int> code;
    ImageProgress image;
    bool reset_sent = false;
    bool answered_after_reset = false;
    bool gone_after_reset = false;
    std::optional<WireMessage> last;  ///< before the first reset or closing stop
    std::vector<Finding> findings;
    std::vector<StoryLine> remarks;  ///< what is no failure by itself
};

struct Run {
    std::uint32_t process = 0;
    std::int64_t time = 0;  ///< milliseconds since the epoch
    double length = 0;      ///< milliseconds
    std::string command;
    bool has_begin = false;
    bool has_command = false;
    bool is_over = false;
    std::vector<Attempt> attempts;
    std::vector<Finding> findings;  ///< of the whole run
    std::vector<StoryLine> not_due;
    /// Products with a firmware file; how often each was met in each search for devices.
    std::map<unsigned int, int> file_products;
    std::vector<std::map<unsigned int, int>> searches;
    std::deque<StoryLine> last_lines;
};

/// Where a process has come to.
struct StoryPlace {
    std::size_t run = 0;                 ///< in `runs`
    std::optional<std::size_t> attempt;  ///< that is under way, in the run's `attempts`
};

class RunStories {
  public:
    /// Takes the records one by one, in the order of the file.
    void take(const TraceEntry& entry, const Meaning& meaning);
    const std::vector<Run>& runs() const { return runs_; }
    /// Of a process that has had a record.
    StoryPlace place_of(std::uint32_t process) const;

  private:
    /// What the run's next attempt will know, and which message waits for its answer.
    struct Present {
        std::size_t run = 0;
        bool in_attempt = false;
        bool is_searching = false;
        std::string file;
        std::optional<std::string> serial;
        std::string level_before, level_after;
        std::optional<WireMessage> open;
    };

    Present& present_of(const TraceEntry& entry);
    void take_text(Present& present, const TraceEntry& entry);
    bool take_frame(Present& present, const StoryLine& line);
    bool take_begin(Present& present, const StoryLine& line);
    bool take_end(Present& present, const StoryLine& line);
    void take_search(Present& present, const StoryLine& line, unsigned int product, bool is_ours);
    void take_trouble(Present& present, const StoryLine& line);
    void take_sent(Present& present, const TraceEntry& entry, const Meaning& meaning);
    void take_status(Present& present, const TraceEntry& entry, const Meaning& meaning);
    void take_data(Present& present, const TraceEntry& entry, const Meaning& meaning);
    void begin_attempt(Present& present, Attempt attempt);
    Attempt* attempt_of(Present& present);
    void add_finding(Present& present, const Cause* cause, const StoryLine& line);

    std::vector<Run> runs_;
    std::map<std::uint32_t, Present> present_;
};
