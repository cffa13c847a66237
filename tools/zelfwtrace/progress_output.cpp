#include "flash_protocol.h"
#include "journal/zelfwtrace.h"
#include "zelfwtrace/output.h"
#include "zelfwtrace/record_pace.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <optional>
#include <utility>

namespace {

/// More updaters than write to one file at a time.
constexpr std::size_t most_watched_images = 64;
constexpr std::size_t usual_width = 80;

std::size_t terminal_width() {
    winsize size = {};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1 ? size.ws_col
                                                                           : usual_width;
}

/// The last line of a terminal, written over and over.
class RewrittenLine {
  public:
    void show(std::string text) {
        // A line that fills the terminal would be broken.
        text.resize(std::min(text.size(), terminal_width() - 1));
        if (text != shown_) {
            const std::size_t size = text.size();
            printf("\r%s%s", text.c_str(), blanks(size).c_str());
            shown_ = std::move(text);
        }
    }
    void clear() {
        if (!shown_.empty()) {
            printf("\r%s\r", blanks(0).c_str());
            shown_.clear();
        }
    }

  private:
    /// As many as the old line is longer than `size`.
    std::string blanks(std::size_t size) const {
        return std::string(shown_.size() > size ? shown_.size() - size : 0, ' ');
    }

    std::string shown_;
};

/// Shows an image's records and their answers in a line that is rewritten, all else as it is.
class ProgressOutput : public TraceOutput {
  public:
    explicit ProgressOutput(std::unique_ptr<TraceOutput> lines) : lines_(std::move(lines)) {}

    void take(const TraceEntry& entry, const Meaning& meaning) override {
        const auto image = images_.find(entry.process);
        if (meaning.record) {
            take_record(entry, meaning);
            return;
        }
        if (image != images_.end() && is_good_answer(entry, meaning)) {
            image->second.take_answer(entry);
            moving_ = entry.process;
            return;
        }
        line_.clear();
        if (entry.kind != trace_kind::text) {
            moving_.reset();
        }
        // The log's lines in between do not end an image.
        if (image != images_.end() && entry.kind != trace_kind::text) {
            puts(image->second.last_line().c_str());
            images_.erase(image);
        }
        lines_->take(entry, meaning);
    }

    void pause() override {
        const auto image = moving_ ? images_.find(*moving_) : images_.end();
        if (image != images_.end()) {
            line_.show(image->second.line());
        }
    }

    std::string finish() override {
        line_.clear();
        for (const auto& [process, image] : images_) {
            puts(image.last_line().c_str());
        }
        return lines_->finish();
    }

  private:
    static bool is_good_answer(const TraceEntry& entry, const Meaning& meaning) {
        return entry.kind == trace_kind::status_read && meaning.answered == "record" &&
               !entry.report().empty() &&
               !is_bad_status(static_cast<std::uint8_t>(entry.report().front()));
    }

    void take_record(const TraceEntry& entry, const Meaning& meaning) {
        if (meaning.record == 1U) {
            images_.erase(entry.process);
        }
        if (images_.size() >= most_watched_images && !images_.contains(entry.process)) {
            images_.erase(images_.begin());
        }
        images_[entry.process].take_record(entry, meaning);
        moving_ = entry.process;
    }

    std::unique_ptr<TraceOutput> lines_;
    RewrittenLine line_;
    std::map<std::uint32_t, RecordPace> images_;  ///< by the process that sends it
    std::optional<std::uint32_t> moving_;         ///< the process whose image went on last
};

}  // namespace

std::unique_ptr<TraceOutput> progress_output(const TextStyle& style) {
    return std::make_unique<ProgressOutput>(text_output(style));
}
