/// \file
/// What a page shows of each run of a trace beyond its story: when which device did what, how long
/// each record's answer took, and the conversation.
#pragma once

#include "zelfwtrace/run_story.h"

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// A stretch of a device's time.
struct Phase {
    enum class Kind { list, erase, records, checksum, reset, sleep, read };

    Kind kind = Kind::list;
    double begin = 0;  ///< milliseconds since the run began
    double end = 0;
    std::optional<std::size_t> attempt;  ///< none: of all devices that were reset before
};
const char* phase_name(Phase::Kind kind);

/// A record of an image on its way.
struct RecordAnswer {
    std::uint64_t file_offset = 0;
    std::uint64_t trace_offset = 0;
    double clock = 0;                           ///< when it was sent
    std::optional<std::uint32_t> milliseconds;  ///< none: no answer came
    bool is_refused = false;
};

/// A line of the conversation.
struct TalkLine {
    enum class Kind { text, sent, records, answer };

    Kind kind = Kind::text;
    std::uint64_t offset = 0;
    double clock = 0;
    std::optional<std::uint16_t> product;
    std::string text;
    std::string answer;
    std::optional<std::uint32_t> milliseconds;
    bool is_bad = false;
    /// Of `records`: a stretch of the attempt's records, the last one included.
    std::size_t attempt = 0;
    std::size_t first = 0, last = 0;
};

/// What a list said of a component.
struct ListedLevel {
    std::string product, component, type, level, serial;
};

struct RunDigest {
    std::vector<Phase> phases;
    std::map<std::size_t, std::vector<RecordAnswer>> records;  ///< by attempt
    std::vector<ListedLevel> levels;
    /// The first lines and the last ones, and how many there were between them.
    std::deque<TalkLine> talk, late_talk;
    std::uint64_t left_out = 0;
};

class RunDigests {
  public:
    /// Takes the records one by one, in the order of the file.
    void take(const TraceEntry& entry, const Meaning& meaning);
    /// Ends all phases; nothing is taken after it.
    void finish();
    const std::vector<Run>& runs() const { return stories_.runs(); }
    /// Of each run. Those before the last ones have no records and no conversation.
    const std::vector<RunDigest>& digests() const { return digests_; }
    /// The first run that has them.
    std::size_t first_whole() const { return first_whole_; }

  private:
    void take_text(RunDigest& digest, const StoryPlace& place, const TraceEntry& entry);
    void take_sent(RunDigest& digest, const StoryPlace& place, const TraceEntry& entry,
                   const Meaning& meaning);
    void take_status(RunDigest& digest, const StoryPlace& place, const TraceEntry& entry,
                     const Meaning& meaning);
    void forget_early_runs();

    RunStories stories_;
    std::vector<RunDigest> digests_;
    std::size_t first_whole_ = 0;
};
