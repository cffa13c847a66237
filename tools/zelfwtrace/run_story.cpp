#include "zelfwtrace/run_story.h"

#include "common/pattern.h"
#include "firmware/firmware_file.h"
#include "flash_protocol.h"
#include "journal/zelfwtrace.h"
#include "zelfwtrace/escape.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>

namespace {

/// Of each kind and run; a trace may be made to hold endless ones.
constexpr std::size_t most_kept = 1000;
constexpr std::size_t last_lines_kept = 8;
/// A till's trace of years has some thousands.
constexpr std::size_t most_runs = 100000;
/// The transfer layer waits five seconds; a data answer that fails after that has timed out.
constexpr double transfer_time_out = 4900;
constexpr int hexadecimal_digits = 16;
constexpr int decimal = 10;

using Words = zelf::Match;

/// Compiled once for each literal.
const zelf::Pattern& compiled(const char* literal) {
    static std::map<const char*, zelf::Pattern> patterns;
    const auto found = patterns.find(literal);
    return found != patterns.end() ? found->second
                                   : patterns.emplace(literal, literal).first->second;
}

bool match(const std::string& text, Words& words, const char* literal) {
    const auto found = compiled(literal).find(text);
    words = found.value_or(Words());
    return found.has_value();
}

int number(const std::string& digits, int base = decimal) {
    int value = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), value, base);
    return value;
}

unsigned int product_of(const std::string& digits) {
    return static_cast<unsigned int>(number(digits, hexadecimal_digits));
}

/// The text without the line's ends and blanks around it.
std::string trimmed(const std::string& text) {
    const std::size_t first = text.find_first_not_of(" \n\t");
    const std::size_t last = text.find_last_not_of(" \n\t");
    return first == std::string::npos ? "" : text.substr(first, last - first + 1);
}

StoryLine line_of(const TraceEntry& entry, std::string text) {
    return {.offset = entry.offset, .clock = entry.clock, .text = std::move(text)};
}

bool is_image_message(const std::string& name) {
    return name == "erase" || name == "record" || name == "checksum";
}

/// The cause behind a code of libusb in a line, null when there is none.
const Cause* transfer_cause(const std::string& text) {
    Words words;
    if (match(text, words, R"(^(Write|Read) failed, rc=(-?[0-9]+)( \(usage=[0-9a-f]{4}\))?$)")) {
        return cause_of_usb_code(number(words[2]));
    }
    if (match(text, words, R"(^Get feature write failed rc=(-?[0-9]+), \(usagePage=)")) {
        return cause_of_usb_code(number(words[1]));
    }
    return nullptr;
}

/// The exchange's code in a line that names the step it ended.
const Cause* exchange_cause(const std::string& text) {
    Words words;
    if (match(text, words, R"(^Read failed on status of (erase )?command, rc=([0-9]+)$)")) {
        return cause_of_exchange_code(number(words[2]));
    }
    return nullptr;
}

template <typename List, typename Item>
void keep(List& list, Item item) {
    if (list.size() < most_kept) {
        list.push_back(std::move(item));
    }
}

void count_record(ImageProgress& image, const TraceEntry& entry) {
    if (image.records_sent++ == 0) {
        image.first_clock = entry.clock;
        image.next_offset = firmware_header_size;
    }
    image.offset = image.next_offset;
    // In the file a record is its length byte and what the message carries behind that.
    const std::size_t size = entry.report().size();
    image.next_offset += size - std::min(size, image_message::length_byte);
}

void count_answer(Attempt& attempt, const std::string& answered, double clock) {
    ImageProgress& image = attempt.image;
    if (answered == "erase") {
        image.is_erased = true;
    } else if (answered == "record") {
        ++image.records_taken;
        image.last_clock = clock;
    } else if (answered == "checksum") {
        image.is_complete = true;
    }
    for (Finding& finding : attempt.findings) {
        finding.is_overcome = true;
    }
}

/// Whether a line of the log stands for what a finding before it says already.
bool is_repetition(const Attempt& attempt, const Cause* cause) {
    return cause == cause_named("no-answer") && !attempt.findings.empty() &&
           !attempt.findings.back().is_overcome;
}

}  // namespace

RunStories::Present& RunStories::present_of(const TraceEntry& entry) {
    const auto found = present_.find(entry.process);
    if (found != present_.end() && entry.kind != trace_kind::version) {
        return found->second;
    }
    if (runs_.size() >= most_runs) {
        throw std::runtime_error("the file holds more than " + std::to_string(most_runs) + " runs");
    }
    Run run;
    run.process = entry.process;
    run.time = entry.time_in_milliseconds();
    run.has_begin = entry.kind == trace_kind::version;
    runs_.push_back(std::move(run));
    Present& present = present_[entry.process];
    present = Present{};
    present.run = runs_.size() - 1;
    return present;
}

StoryPlace RunStories::place_of(std::uint32_t process) const {
    const Present& present = present_.at(process);
    StoryPlace place = {.run = present.run, .attempt = {}};
    if (present.in_attempt) {
        place.attempt = runs_[present.run].attempts.size() - 1;
    }
    return place;
}

void RunStories::take(const TraceEntry& entry, const Meaning& meaning) {
    Present& present = present_of(entry);
    Run& run = runs_[present.run];
    run.length = std::max(run.length, entry.clock);
    if (entry.kind == trace_kind::text) {
        take_text(present, entry);
        return;
    }
    if (!entry.is_transfer()) {
        return;
    }
    run.last_lines.push_back(line_of(
        entry, meaning.title() + (meaning.details.empty() ? "" : " (" + meaning.details + ")")));
    if (entry.kind == trace_kind::report_written) {
        take_sent(present, entry, meaning);
    } else if (entry.kind == trace_kind::status_read) {
        take_status(present, entry, meaning);
    } else {
        take_data(present, entry, meaning);
    }
    if (run.last_lines.size() > last_lines_kept) {
        run.last_lines.pop_front();
    }
}

void RunStories::take_text(Present& present, const TraceEntry& entry) {
    const std::string text = trimmed(entry.payload);
    if (text.empty() || text.find_first_not_of('=') == std::string::npos) {
        return;
    }
    const StoryLine line = line_of(entry, text);
    Run& run = runs_[present.run];
    run.last_lines.push_back(line);
    if (run.last_lines.size() > last_lines_kept) {
        run.last_lines.pop_front();
    }
    Words words;
    if (match(text, words, R"(vid_[0-9a-f]{4}&pid_([0-9a-f]{4}).*#hub_([0-9]+)&port_([0-9]+))")) {
        Attempt* const attempt = attempt_of(present);
        if (attempt != nullptr && attempt->product == product_of(words[1])) {
            attempt->place = printed("hub %d, port %d", number(words[2]), number(words[3]));
        }
    }
    if (!take_frame(present, line) && !take_begin(present, line) && !take_end(present, line)) {
        take_trouble(present, line);
    }
}

/// What tells of the run as a whole.
bool RunStories::take_frame(Present& present, const StoryLine& line) {
    Run& run = runs_[present.run];
    const std::string& text = line.text;
    constexpr std::string_view command = "Command line:";
    Words words;
    if (text.rfind(command, 0) == 0) {
        run.command = trimmed(text.substr(command.size()));
        run.has_command = true;
    } else if (text.rfind("USB Flash ended at ", 0) == 0) {
        run.is_over = true;
        present.in_attempt = false;
    } else if (match(text, words, R"(PID: ([0-9a-f]{4}) COMP: [0-9]+ TYPE: .*Version=')")) {
        ++run.file_products[product_of(words[1])];
    } else if (match(text, words, R"(^Processing [0-9a-f]{4}:([0-9a-f]{4}):[0-9a-f]{4}-([01])$)")) {
        take_search(present, line, product_of(words[1]), words[2] == "1");
    } else if (
        match(text, words,
              R"(^(File EC level smaller or equal|Random control with file)|- Version mismatch)")) {
        keep(run.not_due, line);
        return words.has(1);
    } else {
        return false;
    }
    return true;
}

void RunStories::take_search(Present& present, const StoryLine& line, unsigned int product,
                             bool is_ours) {
    Run& run = runs_[present.run];
    if (!present.is_searching) {
        present.is_searching = true;
        run.searches.emplace_back();
    }
    present.in_attempt = false;
    if (is_ours) {
        ++run.searches.back()[product];
        Attempt attempt;
        attempt.product = product;
        attempt.begin = line;
        begin_attempt(present, std::move(attempt));
    }
}

void RunStories::begin_attempt(Present& present, Attempt attempt) {
    std::vector<Attempt>& attempts = runs_[present.run].attempts;
    present.open.reset();
    attempt.end = attempt.begin.clock;
    present.in_attempt = attempts.size() < most_kept;
    if (present.in_attempt) {
        attempts.push_back(std::move(attempt));
    }
}

bool RunStories::take_begin(Present& present, const StoryLine& line) {
    const std::string& text = line.text;
    Words words;
    Attempt attempt;
    attempt.begin = line;
    if (match(text, words, R"(^Firmware file found:  (.*)$)")) {
        present.is_searching = false;
        present.in_attempt = false;
        present.file = words[1];
    } else if (match(text, words, R"(^File   - PID: .* EC: ([0-9a-f.]+))")) {
        present.level_after = words[1];
    } else if (match(text, words, R"(^Device - PID: .* EC: ([0-9a-f.]+) *\(SN='(.*)'\)$)")) {
        present.level_before = words[1];
        present.serial = words[2];
    } else if (match(text, words,
                     R"(^Starting firmware update of Product ID ([0-9a-f]{4}) COMP: ([0-9]+)$)")) {
        attempt.kind = Attempt::Kind::update;
        attempt.product = product_of(words[1]);
        attempt.component = number(words[2]);
        attempt.serial = present.serial;
        attempt.file = present.file;
        attempt.level_before = present.level_before;
        attempt.level_after = present.level_after;
        begin_attempt(present, std::move(attempt));
    } else if (match(text, words, R"(^Resetting device PID:([0-9a-f]{4}) SN='(.*)'$)")) {
        attempt.kind = Attempt::Kind::reset;
        attempt.product = product_of(words[1]);
        attempt.serial = words[2];
        begin_attempt(present, std::move(attempt));
    } else if (
        match(text, words,
              R"(^Reading data from device PID:([0-9a-f]{4}) Component:(-?[0-9]+) SN='(.*)'$)")) {
        attempt.kind = Attempt::Kind::read;
        attempt.product = product_of(words[1]);
        attempt.component = number(words[2]);
        attempt.serial = words[3];
        begin_attempt(present, std::move(attempt));
    } else {
        return false;
    }
    return true;
}

bool RunStories::take_end(Present& present, const StoryLine& line) {
    Attempt* const attempt = attempt_of(present);
    Words words;
    if (line.text == "Sleeping finished") {
        present.is_searching = false;
        runs_[present.run].searches.emplace_back();
        present.is_searching = true;
        return true;
    }
    if (attempt == nullptr) {
        return false;
    }
    if (match(line.text, words,
              R"(^Erase completed, now sending ([0-9]+) firmware update records)")) {
        attempt->image.records = static_cast<std::uint32_t>(number(words[1]));
        return true;
    }
    if (match(line.text, words, R"(^Firmware update of Product ID .* finished, rc=(-?[0-9]+)$)") ||
        match(line.text, words, R"(^Device PID:.* (?:reset|read) failed, rc=(-?[0-9]+)$)")) {
        attempt->code = number(words[1]);
    } else if (match(line.text, words, R"(^Device PID:.* (?:reset|read) successfully$)")) {
        attempt->code = 0;
    } else {
        return false;
    }
    attempt->is_over = true;
    attempt->end = line.clock;
    present.in_attempt = false;
    return true;
}

Attempt* RunStories::attempt_of(Present& present) {
    return present.in_attempt ? &runs_[present.run].attempts.back() : nullptr;
}

void RunStories::add_finding(Present& present, const Cause* cause, const StoryLine& line) {
    Attempt* const attempt = attempt_of(present);
    Finding finding = {.cause = cause, .line = line};
    if (attempt == nullptr) {
        keep(runs_[present.run].findings, std::move(finding));
        return;
    }
    finding.is_after_reset = attempt->reset_sent;
    if (line.text.rfind("Write ", 0) == 0 && attempt->last && present.open &&
        present.open->sent.offset == attempt->last->sent.offset) {
        attempt->last->is_lost = true;
    }
    attempt->gone_after_reset |= attempt->reset_sent && cause == cause_named("device-gone");
    keep(attempt->findings, std::move(finding));
}

void RunStories::take_trouble(Present& present, const StoryLine& line) {
    Attempt* const attempt = attempt_of(present);
    if (const EndingText* row = find_ending_text(line.text)) {
        const Cause* const cause = cause_named(row->cause);
        if (row->reach == Reach::run) {
            keep(runs_[present.run].findings, Finding{.cause = cause, .line = line});
        } else if (attempt == nullptr || !is_repetition(*attempt, cause)) {
            add_finding(present, cause, line);
        }
        return;
    }
    if (attempt == nullptr) {
        return;
    }
    const Cause* cause = transfer_cause(line.text);
    if (cause == nullptr) {
        cause = exchange_cause(line.text);
        if (cause != nullptr && !attempt->findings.empty() &&
            !attempt->findings.back().is_overcome) {
            return;
        }
    }
    Words words;
    if (match(line.text, words, R"(^Get Feature Report ([0-9a-f]{4}) rc=([0-9]+)$)")) {
        const double before =
            present.open && present.open->answer ? present.open->answer->clock : line.clock;
        const bool timed_out = line.clock - before >= transfer_time_out;
        cause = timed_out ? cause_named("time-out") : cause_of_exchange_code(number(words[2]));
    }
    if (cause != nullptr) {
        add_finding(present, cause, line);
    }
}

void RunStories::take_sent(Present& present, const TraceEntry& entry, const Meaning& meaning) {
    Attempt* const attempt = attempt_of(present);
    if (attempt == nullptr || entry.product() != attempt->product) {
        return;
    }
    const bool is_closing = meaning.message == "stop" || meaning.message == "reset";
    const bool is_probe = meaning.message == "device information query";
    if (attempt->kind != Attempt::Kind::update && present.open && !present.open->answer) {
        // The first of the two device information queries is only a probe.
        const bool was_probe = is_probe && present.open->name == meaning.message;
        if (was_probe) {
            keep(attempt->remarks, StoryLine{present.open->sent.offset, present.open->sent.clock,
                                             "device information query: no answer"});
        } else if (present.open->name != "reset" && attempt->findings.empty()) {
            add_finding(present, cause_named("query-unanswered"), present.open->sent);
        }
    }
    WireMessage message;
    message.name = meaning.message;
    message.sent = line_of(entry, meaning.title());
    attempt->end = entry.clock;
    if (meaning.message == "erase") {
        attempt->image.erase_sent = true;
    } else if (meaning.record) {
        count_record(attempt->image, entry);
        message.sent.text = printed("record %u", attempt->image.records_sent);
    } else if (meaning.message == "checksum") {
        attempt->image.checksum_sent = true;
    } else if (meaning.message == "reset") {
        attempt->reset_sent = true;
    }
    const bool is_the_task = attempt->kind == Attempt::Kind::reset || attempt->image.is_complete;
    if (!is_closing || (is_the_task && meaning.message == "reset")) {
        attempt->last = message;
    }
    present.open = std::move(message);
}

void RunStories::take_status(Present& present, const TraceEntry& entry, const Meaning& meaning) {
    Attempt* const attempt = attempt_of(present);
    if (attempt == nullptr || entry.product() != attempt->product || !present.open) {
        return;
    }
    const StoryLine line = line_of(entry, "status " + meaning.details);
    attempt->end = entry.clock;
    const std::string name = present.open->name;
    if (!present.open->answer) {
        present.open->answer = line;
    }
    if (attempt->last && attempt->last->sent.offset == present.open->sent.offset) {
        attempt->last->answer = line;
    }
    const AnswerView report(entry.report().data(), entry.report().size());
    const Cause* const cause = cause_of_status(report[0]);
    if (attempt->reset_sent) {
        attempt->answered_after_reset = true;
    }
    if (cause != nullptr) {
        // Devices reject the queries that they do not know.
        const bool is_ordinary =
            attempt->kind == Attempt::Kind::query && cause == cause_named("rejected");
        if (is_ordinary) {
            keep(attempt->remarks, line_of(entry, name + ": " + meaning.details));
        } else {
            add_finding(present, cause, line_of(entry, name + ": " + line.text));
        }
    } else if (attempt->kind == Attempt::Kind::update && is_image_message(name) &&
               !attempt->reset_sent) {
        count_answer(*attempt, name, entry.clock);
    }
}

void RunStories::take_data(Present& present, const TraceEntry& entry, const Meaning& meaning) {
    Attempt* const attempt = attempt_of(present);
    if (attempt == nullptr || entry.product() != attempt->product) {
        return;
    }
    attempt->end = entry.clock;
    // A whole list is shown with its entries, another one with its bytes.
    if (meaning.details.find("list of ") != std::string::npos ||
        meaning.details.find("list, 0 entries") != std::string::npos) {
        add_finding(present, cause_named("garbled-data"),
                    line_of(entry, "data: " + meaning.details));
    }
}
