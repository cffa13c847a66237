#include "zelfwtrace/redact.h"

#include "common/pattern.h"
#include "firmware/firmware_file.h"
#include "journal/file_handle.h"
#include "journal/zelfwtrace.h"
#include "zelfwtrace/message.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <optional>
#include <sstream>

namespace {

/// A shorter name may be part of any text.
constexpr std::size_t shortest_free_name = 3;
constexpr std::size_t longest_extension = 5;
constexpr std::string_view command_line_mark = "Command line: ";

/// Behind these words a text names a file or directory, to the end of its line.
constexpr std::string_view file_marks[] = {
    "Firmware file found:  ", "No flash file: ", "Looking firmware files in directory "};

bool is_letter_or_digit(char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

std::string first_line(const std::string& text) {
    return text.substr(0, text.find('\n'));
}

/// Whether a word of a command line tells nothing of the shop: an option, a number, a product ID.
bool is_harmless(const std::string& word) {
    static const zelf::Pattern harmless(
        "-[A-Za-z?]*[0-9]*|[0-9A-Fa-f]{1,4}|[0-9]{1,6}|zelfwupdate");
    return harmless.match(word).has_value();
}

/// Whether a name may as well be a word or a number of the program's own texts: it is short, of
/// letters only, of digits only, or four hexadecimal digits.
bool is_plain_word(std::string_view name) {
    static const zelf::Pattern plain("[A-Za-z]+|[0-9]+|[0-9A-Fa-f]{4}");
    return name.size() < shortest_free_name || plain.match(name);
}

/// Whether a text names a file or device at `at`, by what stands around.
bool is_place_of_name(std::string_view text, std::size_t at, std::size_t size) {
    const std::string_view before = text.substr(0, at);
    const std::string_view behind = text.substr(at + size);
    if (before.ends_with('\'') && behind.starts_with('\'')) {
        return true;
    }
    const std::size_t column = behind.find_first_not_of(' ');
    const bool is_listed = before == "  " && column != 0 && column != std::string_view::npos &&
                           behind.substr(column).starts_with("PID: ");
    return is_listed || text.starts_with(command_line_mark) ||
           std::any_of(std::begin(file_marks), std::end(file_marks),
                       [before](std::string_view mark) { return before.ends_with(mark); });
}

/// Whether the name stands at `at` by itself.
bool stands_alone(std::string_view text, std::size_t at, std::string_view name) {
    const std::size_t size = name.size();
    const char before = at == 0 ? ' ' : text[at - 1];
    const char behind = at + size == text.size() ? ' ' : text[at + size];
    return !is_letter_or_digit(before) && !is_letter_or_digit(behind) &&
           (!is_plain_word(name) || is_place_of_name(text, at, size));
}

void zero_behind(std::string& payload, std::size_t kept) {
    if (payload.size() > trace_prefix_size + kept) {
        std::fill(payload.begin() + static_cast<std::ptrdiff_t>(trace_prefix_size + kept),
                  payload.end(), '\0');
    }
}

/// What a record of a firmware file tells of levels, not of the image.
bool is_plain_information(std::string_view report) {
    const AnswerView bytes(report.data(), report.size());
    const std::uint8_t tag = bytes[image_message::body_start];
    const int subtype =
        bytes[image_message::body_start + 1] * 256 + bytes[image_message::body_start + 2];
    return tag >> 4 == information_nibble && subtype <= COMPONENT_VERSION_LIST_EXTENDED;
}

void redact_sent(std::string& payload, const SentMessage& message, std::string_view report) {
    if (message.kind == SentMessage::Kind::image_record && !is_plain_information(report)) {
        zero_behind(payload, image_message::body_start + firmware_record_head_size - 1);
    } else if (message.kind == SentMessage::Kind::unknown) {
        zero_behind(payload, image_message::body_start);
    }
}

void redact_data(std::string& payload, std::optional<FlashCommand> query) {
    switch (query.value_or(FlashCommand::status_request)) {
        case FlashCommand::component_version_query:
        case FlashCommand::component_list_query:
        case FlashCommand::extended_component_list_query:
            return;
        case FlashCommand::read_all_records:
            zero_behind(payload, record_answer::record + record_answer::bytes_beside_payload);
            return;
        default:
            zero_behind(payload, 0);
    }
}

void append_number(std::string& bytes, std::uint64_t value, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
        bytes += static_cast<char>(value >> (8 * i) & 0xFFU);
    }
}

/// The record as the updater writes it, with this payload.
std::string record_bytes(const TraceEntry& entry, const std::string& payload) {
    const bool is_version = entry.kind == trace_kind::version;
    std::uint64_t clock = 0;
    static_assert(sizeof(clock) == sizeof(entry.clock));
    std::memcpy(&clock, &entry.clock, sizeof(clock));
    std::string bytes;
    append_number(bytes, is_version ? version_record_length : payload.size(), 4);
    append_number(bytes, entry.kind, 4);
    append_number(bytes, clock, 8);
    append_number(bytes, entry.thread, 4);
    append_number(bytes, entry.process, 4);
    append_number(bytes, entry.seconds, 4);
    append_number(bytes, is_version ? 0 : trace_data_component, 2);
    append_number(bytes, entry.milliseconds, 2);
    return bytes + payload;
}

class RedactedOutput : public TraceOutput {
  public:
    RedactedOutput(FileHandle file, const StandIns& names)
        : file_(std::move(file)), names_(names) {}

    void take(const TraceEntry& entry, const Meaning& /*meaning*/) override {
        const std::string bytes = record_bytes(entry, redacted(entry));
        if (fwrite(bytes.data(), 1, bytes.size(), stream()) != bytes.size() && error_ == 0) {
            error_ = errno;
        }
    }
    std::string finish() override {
        if (fflush(stream()) != 0 && error_ == 0) {
            error_ = errno;
        }
        return error_ == 0 ? "" : strerror(error_);
    }

  private:
    FILE* stream() const { return file_ == nullptr ? stdout : file_.get(); }

    std::string redacted(const TraceEntry& entry) {
        std::string payload = entry.payload;
        if (entry.kind == trace_kind::text) {
            payload = names_.replace(payload).substr(0, max_trace_text - 1);
        } else if (entry.kind == trace_kind::report_written) {
            const SentMessage message = read_sent_message(entry.report());
            queries_.erase(entry.process);
            if (message.command != nullptr) {
                queries_[entry.process] = message.command->command;
            }
            redact_sent(payload, message, entry.report());
        } else if (entry.kind == trace_kind::feature_read) {
            const auto query = queries_.find(entry.process);
            redact_data(payload,
                        query == queries_.end() ? std::nullopt : std::optional(query->second));
        }
        return payload;
    }

    FileHandle file_;  ///< null: standard output
    const StandIns& names_;
    std::map<std::uint32_t, FlashCommand> queries_;  ///< what each process asked last
    int error_ = 0;
};

}  // namespace

void StandIns::add_serial(const std::string& serial) {
    if (!serial.empty() && !stand_ins_.contains(serial)) {
        char text[24];
        snprintf(text, sizeof text, "SN%04u", ++serials_);
        stand_ins_[serial] = text;
    }
}

void StandIns::add_file(const std::string& path) {
    const std::size_t end = path.find_last_not_of("/ \r");
    if (end == std::string::npos) {
        return;
    }
    const std::string name = path.substr(path.find_last_of('/', end) + 1);
    std::string& stand_in = files_[name];
    if (stand_in.empty()) {
        const std::size_t dot = name.find_last_of('.');
        const bool has_extension = dot != std::string::npos &&
                                   name.size() - dot <= longest_extension &&
                                   std::all_of(name.begin() + static_cast<std::ptrdiff_t>(dot) + 1,
                                               name.end(), is_letter_or_digit);
        stand_in = "file" + std::to_string(files_.size()) + (has_extension ? name.substr(dot) : "");
    }
    stand_ins_.emplace(name, stand_in);
    stand_ins_.emplace(path, stand_in);
}

void StandIns::learn_command_line(const std::string& text) {
    std::istringstream words(text.substr(command_line_mark.size()));
    std::string before;
    for (std::string word; words >> word; before = word) {
        const bool is_serial = before.size() > 1 && before.front() == '-' && before.back() == 's';
        if (is_serial) {
            add_serial(word);
        } else if (word.starts_with("-s") && word.size() > 2) {
            add_serial(word.substr(2));
        } else if (!is_harmless(word)) {
            add_file(word.front() == '-' ? word.substr(std::min<std::size_t>(2, word.size()))
                                         : word);
        }
    }
}

void StandIns::learn(const TraceEntry& entry) {
    static const zelf::Pattern quoted("([^' ]* ?)'([^']*)'");
    static const zelf::Pattern listed("  (\\S.*?) +PID: [0-9a-f]{4} COMP: .*");
    if (entry.kind != trace_kind::text) {
        return;
    }
    const std::string text = entry.payload.substr(0, entry.payload.find_last_not_of('\n') + 1);
    if (text.starts_with(command_line_mark)) {
        learn_command_line(text);
    }
    for (const zelf::Match& words : quoted.find_all(text)) {
        const std::string before = words[1];
        if (before.ends_with("SN=")) {
            add_serial(words[2]);
        } else if (!before.ends_with("=") && before != "symbol ") {
            add_file(words[2]);
        }
    }
    for (const std::string_view mark : file_marks) {
        const std::size_t at = text.find(mark);
        if (at != std::string::npos) {
            add_file(first_line(text.substr(at + mark.size())));
        }
    }
    if (const auto parts = listed.match(first_line(text))) {
        add_file((*parts)[1]);
    }
}

StandIns::Names::const_iterator StandIns::find_name(std::string_view text, std::size_t at) const {
    if (at > 0 && is_letter_or_digit(text[at - 1])) {
        return stand_ins_.end();
    }
    // The name that sorts last before the text has as much in common with it as any, and a longer
    // one than what they share is out of the question.
    for (std::string_view rest = text.substr(at); !rest.empty();) {
        auto found = stand_ins_.upper_bound(rest);
        if (found == stand_ins_.begin()) {
            break;
        }
        const std::string& name = (--found)->first;
        const auto end = std::mismatch(name.begin(), name.end(), rest.begin(), rest.end()).first;
        const auto shared = static_cast<std::size_t>(end - name.begin());
        if (shared == name.size() && stands_alone(text, at, name)) {
            return found;
        }
        rest = rest.substr(0, shared == name.size() ? shared - 1 : shared);
    }
    return stand_ins_.end();
}

std::string StandIns::replace(std::string_view text) const {
    std::string result;
    for (std::size_t at = 0; at < text.size();) {
        const auto found = find_name(text, at);
        if (found == stand_ins_.end()) {
            result += text[at];
            ++at;
        } else {
            result += found->second;
            at += found->first.size();
        }
    }
    return result;
}

std::unique_ptr<TraceOutput> redacted_output(const std::string& path, const StandIns& names,
                                             std::string& reason) {
    FileHandle file;
    if (path != "-") {
        file.reset(fopen(path.c_str(), "wbe"));
        if (file == nullptr) {
            reason = strerror(errno);
            return nullptr;
        }
    }
    return std::make_unique<RedactedOutput>(std::move(file), names);
}
