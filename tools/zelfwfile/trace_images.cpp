#include "zelfwfile/trace_images.h"

#include "firmware/firmware_file.h"
#include "flash_protocol.h"
#include "journal/file_handle.h"
#include "journal/zelfwtrace.h"
#include "zelfwtrace/message.h"
#include "zelfwtrace/run_counter.h"
#include "zelfwtrace/trace_reader.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <string_view>

namespace {

/// More than a run over a full table of devices sends, and a bound for what a made-up trace takes.
constexpr std::size_t most_images = 4096;
constexpr std::size_t most_bytes = std::size_t{256} << 20U;
constexpr std::size_t most_announced_digits = 6;

std::string_view behind(std::string_view line, std::string_view key) {
    const std::size_t at = line.find(key);
    return at == std::string_view::npos ? "" : line.substr(at + key.size());
}

std::optional<int> number_in(std::string_view text, std::size_t digits, int base) {
    int value = 0;
    const char* const end = text.data() + std::min(digits, text.size());
    const auto [stop, error] = std::from_chars(text.data(), end, value, base);
    return error == std::errc{} && value >= 0 ? std::optional(value) : std::nullopt;
}

/// "01.05" or "01.05.01"
std::optional<int> level_in(std::string_view text) {
    if (text.size() < 5 || text[2] != '.') {
        return std::nullopt;
    }
    const auto major = number_in(text, 2, 16);
    const auto minor = number_in(text.substr(3), 2, 16);
    return major && minor ? std::optional(*major * 256 + *minor) : std::nullopt;
}

/// The argument of an option in a command line; letters may be joined, and an argument to them.
std::optional<std::string_view> argument_of(std::string_view command_line, char option) {
    constexpr std::string_view takes_argument = "CFGDEcdsrpltnow01234";
    char pending = '\0';
    std::optional<std::string_view> found;
    while (!command_line.empty()) {
        const std::size_t size = std::min(command_line.find_first_of(" \n"), command_line.size());
        std::string_view word = command_line.substr(0, size);
        command_line.remove_prefix(std::min(size + 1, command_line.size()));
        if (pending == '\0' && word.starts_with('-')) {
            word.remove_prefix(1);
            while (pending == '\0' && !word.empty()) {
                pending = takes_argument.find(word[0]) != std::string_view::npos ? word[0] : '\0';
                word.remove_prefix(1);
            }
        }
        if (pending != '\0' && !word.empty()) {
            found = pending == option ? std::optional(word) : found;
            pending = '\0';
        }
    }
    return found;
}

/// Follows the records of one run.
class Collector {
  public:
    explicit Collector(SentImages& sent) : sent_(sent) {}

    void take(const TraceEntry& entry) {
        if (entry.kind == trace_kind::text) {
            take_text(entry.payload);
        } else if (entry.kind == trace_kind::report_written) {
            take_sent(entry);
        }
    }
    /// Records may be missing here.
    void tear() {
        if (in_image_) {
            sent_.images.back().is_torn = true;
        }
        next_ = {};
    }

  private:
    void take_text(std::string_view line) {
        if (line.starts_with("Command line:")) {
            is_level_of_records_ = argument_of(line, 'o') == "1";
            is_redirected_ = argument_of(line, 'c').has_value();
        } else if (const std::string_view path = behind(line, "Firmware file found:  ");
                   !path.empty()) {
            next_ = {};
            next_.file = path.substr(0, path.find('\n'));
        } else if (line.starts_with("  File   - PID:")) {
            next_.product = number_in(behind(line, "PID: "), 4, 16).value_or(-1);
            next_.level = level_in(behind(line, "EC: "));
        } else if (const std::string_view count = behind(line, "Erase completed, now sending ");
                   !count.empty() && in_image_ && sent_.images.back().record_count == 0) {
            if (const auto number = number_in(count, most_announced_digits, 10)) {
                sent_.images.back().announced = static_cast<std::size_t>(*number);
            }
        }
    }

    void take_sent(const TraceEntry& entry) {
        const SentMessage message = read_sent_message(entry.report());
        if (message.is(FlashCommand::erase)) {
            begin(entry.product());
            return;
        }
        if (!in_image_) {
            return;
        }
        SentImage& image = sent_.images.back();
        const AnswerView bytes(entry.report().data(), entry.report().size());
        if (message.kind == SentMessage::Kind::command) {
            in_image_ = false;
        } else if (message.kind == SentMessage::Kind::unknown || entry.product() != image.product) {
            image.is_torn = true;
        } else if (message.kind == SentMessage::Kind::checksum) {
            image.checksum =
                bytes[image_message::body_start] * 256 + bytes[image_message::body_start + 1];
            in_image_ = false;
        } else {
            add_record(image, entry.report());
        }
    }

    void begin(int product) {
        if (sent_.images.size() == most_images) {
            throw std::runtime_error("more than " + std::to_string(most_images) +
                                     " images in one run");
        }
        SentImage image;
        if (next_.product == product) {
            image = next_;
        }
        image.product = product;
        image.is_level_of_records = is_level_of_records_;
        image.is_redirected = is_redirected_;
        sent_.images.push_back(std::move(image));
        in_image_ = true;
        next_ = {};
    }

    void add_record(SentImage& image, std::string_view report) {
        const std::string_view record = report.substr(image_message::length_byte);
        bytes_ += record.size();
        if (bytes_ > most_bytes) {
            throw std::runtime_error("more than " + std::to_string(most_bytes >> 20U) +
                                     " MiB of images in one run");
        }
        image.records.insert(image.records.end(), record.begin(), record.end());
        ++image.record_count;
        const int tag = static_cast<unsigned char>(record[1]);
        if (tag >> 4 != information_nibble && (tag & 0x0F) != inline_version_kind) {
            ++image.data_records;
            image.zero_records +=
                record.find_first_not_of('\0', firmware_record_head_size) == std::string_view::npos
                    ? 1
                    : 0;
        }
    }

    SentImages& sent_;
    SentImage next_;  ///< what the log tells of the image that is sent next
    bool in_image_ = false;
    bool is_level_of_records_ = false;
    bool is_redirected_ = false;
    std::size_t bytes_ = 0;
};

FileHandle open_trace(const std::string& path) {
    FileHandle file = open_regular_file(path.c_str());
    if (file == nullptr) {
        throw std::runtime_error("cannot be opened, or is no regular file");
    }
    return file;
}

/// Hands each readable entry with its run to `take`, and calls `tear` at each damaged place.
template <typename Take, typename Tear>
void read_entries(const std::string& path, Take take, Tear tear) {
    const FileHandle file = open_trace(path);
    TraceReader reader(file.get());
    RunCounter runs;
    bool has_records = false;
    do {
        for (TraceEntry entry; reader.next(entry);) {
            has_records = true;
            take(entry, runs.run_of(entry));
        }
        if (reader.damage()) {
            tear(*reader.damage());
        }
    } while (reader.step_over_damage());
    if (!has_records && reader.foreign() != nullptr) {
        throw std::runtime_error(reader.foreign());
    }
}

/// Counts the runs, and notes those that sent an image.
SentImages survey(const std::string& path) {
    SentImages sent;
    read_entries(
        path,
        [&sent](const TraceEntry& entry, std::uint32_t run) {
            sent.runs = std::max(sent.runs, run);
            if (entry.kind == trace_kind::report_written &&
                is_command(command_row(FlashCommand::erase), entry.report())) {
                sent.runs_with_images.insert(run);
            }
        },
        [&sent](const TraceDamage& damage) {
            if (sent.damage.empty()) {
                sent.damage = "offset " + std::to_string(damage.offset) + ": " + damage.reason;
            }
        });
    return sent;
}

}  // namespace

SentImages read_sent_images(const std::string& path, std::int64_t run) {
    SentImages sent = survey(path);
    const std::int64_t number = run < 0 ? std::int64_t{sent.runs} + 1 + run : run;
    if (number < 1 || number > sent.runs) {
        throw std::runtime_error(
            sent.runs == 0 ? "no run of the updater in it"
                           : "there is no run " + std::to_string(run) + ", the file has " +
                                 std::to_string(sent.runs) + (sent.runs == 1 ? " run" : " runs"));
    }
    sent.run = static_cast<std::uint32_t>(number);
    Collector collector(sent);
    read_entries(
        path,
        [&](const TraceEntry& entry, std::uint32_t of_run) {
            if (of_run == sent.run) {
                collector.take(entry);
            }
        },
        [&collector](const TraceDamage&) { collector.tear(); });
    return sent;
}
