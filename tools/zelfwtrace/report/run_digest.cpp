#include "zelfwtrace/report/run_digest.h"

#include "common/pattern.h"
#include "flash_protocol.h"
#include "journal/zelfwtrace.h"
#include "zelfwtrace/escape.h"

#include <algorithm>
#include <charconv>

namespace {

/// Runs that are shown in full: a till's trace of years has thousands.
constexpr std::size_t most_whole_runs = 64;
/// Of the conversation's beginning, and as many of its end.
constexpr std::size_t most_talk = 4000;
constexpr std::size_t longest_text = 400;
constexpr std::size_t most_levels = 4096;
constexpr std::size_t most_phases = 8192;

std::string short_line(const std::string& text) {
    const std::string line = one_line(std::string_view(text).substr(0, longest_text));
    return text.size() > longest_text ? line + "..." : line;
}

std::string without_blanks_around(const std::string& text) {
    const std::size_t first = text.find_first_not_of(" \n\t");
    const std::size_t last = text.find_last_not_of(" \n\t");
    return first == std::string::npos ? "" : text.substr(first, last - first + 1);
}

/// The line that is said last so far, null in a run without any.
TalkLine* last_line(RunDigest& digest) {
    if (!digest.late_talk.empty()) {
        return &digest.late_talk.back();
    }
    return digest.talk.empty() ? nullptr : &digest.talk.back();
}

TalkLine* line_at(RunDigest& digest, std::uint64_t offset) {
    for (std::deque<TalkLine>* lines : {&digest.late_talk, &digest.talk}) {
        const auto found =
            std::find_if(lines->rbegin(), lines->rend(),
                         [offset](const TalkLine& line) { return line.offset <= offset; });
        if (found != lines->rend()) {
            return found->offset == offset ? &*found : nullptr;
        }
    }
    return nullptr;
}

void add_line(RunDigest& digest, TalkLine line) {
    if (digest.talk.size() < most_talk) {
        digest.talk.push_back(std::move(line));
        return;
    }
    digest.late_talk.push_back(std::move(line));
    if (digest.late_talk.size() > most_talk) {
        digest.late_talk.pop_front();
        ++digest.left_out;
    }
}

TalkLine line_of(TalkLine::Kind kind, const TraceEntry& entry) {
    TalkLine line;
    line.kind = kind;
    line.offset = entry.offset;
    line.clock = entry.clock;
    if (entry.is_transfer()) {
        line.product = entry.product();
    }
    return line;
}

/// Records follow each other in one line until something else is said.
void add_record(RunDigest& digest, std::size_t attempt, const TraceEntry& entry) {
    const std::size_t number = digest.records[attempt].size() - 1;
    TalkLine* const before = last_line(digest);
    if (before != nullptr && before->kind == TalkLine::Kind::records &&
        before->attempt == attempt) {
        before->last = number;
        return;
    }
    TalkLine line = line_of(TalkLine::Kind::records, entry);
    line.attempt = attempt;
    line.first = line.last = number;
    add_line(digest, std::move(line));
}

void add_phase(RunDigest& digest, const Phase& phase) {
    if (digest.phases.size() < most_phases) {
        digest.phases.push_back(phase);
    }
}

std::optional<Phase::Kind> phase_of_message(const Meaning& meaning) {
    if (meaning.message == "erase") {
        return Phase::Kind::erase;
    }
    if (meaning.message == "checksum") {
        return Phase::Kind::checksum;
    }
    if (meaning.message == "reset") {
        return Phase::Kind::reset;
    }
    return meaning.record ? std::optional(Phase::Kind::records) : std::nullopt;
}

/// The phase of this kind that the attempt is in, null when it is in another one.
Phase* open_phase(RunDigest& digest, std::size_t attempt, Phase::Kind kind) {
    if (digest.phases.empty()) {
        return nullptr;
    }
    Phase& last = digest.phases.back();
    return last.attempt == attempt && last.kind == kind ? &last : nullptr;
}

/// An answer to the phase's message: up to here the phase lasts.
void extend_phase(RunDigest& digest, std::size_t attempt, const Meaning& answer, double clock) {
    for (const Phase::Kind kind :
         {Phase::Kind::erase, Phase::Kind::records, Phase::Kind::checksum, Phase::Kind::reset}) {
        const std::string_view message = kind == Phase::Kind::records ? "record" : phase_name(kind);
        Phase* const phase = open_phase(digest, attempt, kind);
        if (phase != nullptr && answer.answered == message) {
            phase->end = std::max(phase->end, clock);
        }
    }
}

void take_level(RunDigest& digest, const std::string& text) {
    static const zelf::Pattern listed(
        R"(^PID: ([0-9a-f]{4})  COMP: ([0-9]+)  TYPE: (\S+) *EC: ([0-9a-f.]+) *\(SN='(.*)'\)$)");
    if (digest.levels.size() >= most_levels) {
        return;
    }
    if (const auto words = listed.match(text)) {
        int component = 0;
        const std::string digits = (*words)[2];
        std::from_chars(digits.data(), digits.data() + digits.size(), component);
        digest.levels.push_back({(*words)[1], std::to_string(component), (*words)[3], (*words)[4],
                                 one_line((*words)[5])});
    }
}

void take_sleep(RunDigest& digest, const Run& run, const std::string& text, double clock) {
    static const zelf::Pattern bounded(
        R"(^Sleeping for ([0-9]{1,7}) milliseconds before using device again$)");
    const auto words = bounded.match(text);
    if (words && !run.attempts.empty()) {
        const double length = std::stod((*words)[1]);
        add_phase(digest, {.kind = Phase::Kind::sleep,
                           .begin = clock,
                           .end = clock + length,
                           .attempt = run.attempts.size() - 1});
    } else if (text == "Sleeping to allow reset device to respond") {
        add_phase(digest,
                  {.kind = Phase::Kind::sleep, .begin = clock, .end = clock, .attempt = {}});
    } else if (text == "Sleeping finished") {
        for (Phase& phase : digest.phases) {
            if (phase.kind == Phase::Kind::sleep && !phase.attempt && phase.begin == phase.end) {
                phase.end = clock;
            }
        }
    }
}

/// Lists and read-backs are one stretch each; an image's stretches are no longer than its attempt.
void settle_phases(const Run& run, RunDigest& digest) {
    for (std::size_t i = 0; i < run.attempts.size(); ++i) {
        const Attempt& attempt = run.attempts[i];
        const bool is_read = attempt.kind == Attempt::Kind::read;
        if (is_read || attempt.kind == Attempt::Kind::query) {
            add_phase(digest, {.kind = is_read ? Phase::Kind::read : Phase::Kind::list,
                               .begin = attempt.begin.clock,
                               .end = attempt.end,
                               .attempt = i});
        }
    }
    for (Phase& phase : digest.phases) {
        const bool is_unanswered = phase.kind != Phase::Kind::sleep && phase.end == phase.begin;
        if (is_unanswered && phase.attempt) {
            phase.end = std::max(phase.begin, run.attempts[*phase.attempt].end);
        }
        phase.end = std::min(phase.end, run.length);
    }
    std::stable_sort(digest.phases.begin(), digest.phases.end(),
                     [](const Phase& one, const Phase& other) { return one.begin < other.begin; });
}

}  // namespace

const char* phase_name(Phase::Kind kind) {
    switch (kind) {
        case Phase::Kind::list:
            return "list";
        case Phase::Kind::erase:
            return "erase";
        case Phase::Kind::records:
            return "records";
        case Phase::Kind::checksum:
            return "checksum";
        case Phase::Kind::reset:
            return "reset";
        case Phase::Kind::sleep:
            return "sleep";
        case Phase::Kind::read:
            break;
    }
    return "read";
}

void RunDigests::take(const TraceEntry& entry, const Meaning& meaning) {
    stories_.take(entry, meaning);
    const StoryPlace place = stories_.place_of(entry.process);
    if (place.run >= digests_.size()) {
        digests_.resize(place.run + 1);
        forget_early_runs();
    }
    RunDigest& digest = digests_[place.run];
    if (place.run < first_whole_ || entry.kind == trace_kind::version) {
        return;
    }
    if (entry.kind == trace_kind::text) {
        take_text(digest, place, entry);
    } else if (entry.kind == trace_kind::report_written) {
        take_sent(digest, place, entry, meaning);
    } else if (entry.kind == trace_kind::status_read) {
        take_status(digest, place, entry, meaning);
    } else if (entry.is_transfer()) {
        TalkLine line = line_of(TalkLine::Kind::answer, entry);
        line.text = "data: " + short_line(meaning.details);
        add_line(digest, std::move(line));
    }
}

void RunDigests::forget_early_runs() {
    while (digests_.size() - first_whole_ > most_whole_runs) {
        RunDigest& early = digests_[first_whole_++];
        early.records.clear();
        early.talk.clear();
        early.late_talk.clear();
    }
}

void RunDigests::take_text(RunDigest& digest, const StoryPlace& place, const TraceEntry& entry) {
    const std::string text = without_blanks_around(entry.payload);
    if (text.empty() || text.find_first_not_of('=') == std::string::npos) {
        return;
    }
    TalkLine line = line_of(TalkLine::Kind::text, entry);
    line.text = short_line(text);
    add_line(digest, std::move(line));
    if (text.size() < longest_text) {
        take_level(digest, text);
        take_sleep(digest, runs()[place.run], text, entry.clock);
    }
}

void RunDigests::take_sent(RunDigest& digest, const StoryPlace& place, const TraceEntry& entry,
                           const Meaning& meaning) {
    const auto kind = phase_of_message(meaning);
    if (place.attempt && kind && open_phase(digest, *place.attempt, *kind) == nullptr) {
        add_phase(
            digest,
            {.kind = *kind, .begin = entry.clock, .end = entry.clock, .attempt = place.attempt});
    }
    if (place.attempt && meaning.record) {
        const Attempt& attempt = runs()[place.run].attempts[*place.attempt];
        digest.records[*place.attempt].push_back({.file_offset = attempt.image.offset,
                                                  .trace_offset = entry.offset,
                                                  .clock = entry.clock,
                                                  .milliseconds = {}});
        add_record(digest, *place.attempt, entry);
        return;
    }
    TalkLine line = line_of(TalkLine::Kind::sent, entry);
    line.text = meaning.title() + (meaning.details.empty() ? "" : " (" + meaning.details + ")");
    add_line(digest, std::move(line));
}

void RunDigests::take_status(RunDigest& digest, const StoryPlace& place, const TraceEntry& entry,
                             const Meaning& meaning) {
    const AnswerView report(entry.report().data(), entry.report().size());
    const bool is_bad = cause_of_status(report[0]) != nullptr;
    if (place.attempt) {
        extend_phase(digest, *place.attempt, meaning, entry.clock);
    }
    const auto records = place.attempt ? digest.records.find(*place.attempt) : digest.records.end();
    if (records != digest.records.end() && meaning.answer_time &&
        records->second.back().trace_offset == meaning.answered_offset) {
        records->second.back().milliseconds = meaning.answer_time;
        records->second.back().is_refused = is_bad;
        if (!is_bad) {
            return;
        }
    }
    TalkLine* const sent = meaning.answer_time ? line_at(digest, meaning.answered_offset) : nullptr;
    if (sent != nullptr && sent->kind == TalkLine::Kind::sent) {
        sent->answer = meaning.details;
        sent->milliseconds = meaning.answer_time;
        sent->is_bad = is_bad;
        return;
    }
    TalkLine line = line_of(TalkLine::Kind::answer, entry);
    line.text = "status " + meaning.details;
    line.milliseconds = meaning.answer_time;
    line.is_bad = is_bad;
    add_line(digest, std::move(line));
}

void RunDigests::finish() {
    for (std::size_t i = 0; i < digests_.size(); ++i) {
        settle_phases(runs()[i], digests_[i]);
    }
}
