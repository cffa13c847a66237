#include "zelfwtrace/record_pace.h"

#include "common/time_text.h"
#include "flash_protocol.h"
#include "zelfwtrace/escape.h"

#include <algorithm>

namespace {

/// "0:12", "1:02:03".
std::string duration_text(double milliseconds) {
    constexpr std::uint64_t sixty = 60;
    constexpr double longest = 1e9;
    const auto seconds = static_cast<std::uint64_t>(
        std::clamp(milliseconds / zelf::milliseconds_of_a_second + 0.5, 0.0, longest));
    const auto minutes = seconds / sixty;
    const auto number = [](std::uint64_t value) { return static_cast<unsigned long long>(value); };
    return minutes < sixty ? printed("%llu:%02llu", number(minutes), number(seconds % sixty))
                           : printed("%llu:%02llu:%02llu", number(minutes / sixty),
                                     number(minutes % sixty), number(seconds % sixty));
}

}  // namespace

void RecordPace::take_record(const TraceEntry& entry, const Meaning& meaning) {
    if (bytes_sent_ == 0) {
        first_clock_ = entry.clock;
        last_clock_ = entry.clock;
    }
    product_ = entry.product();
    component_ = meaning.component ? meaning.component : component_;
    record_ = meaning.record.value_or(record_ + 1);
    records_ = meaning.records;
    // In the file a record is its length byte and what the message carries behind that.
    const std::size_t size = entry.report().size();
    bytes_sent_ += size - std::min(size, image_message::length_byte);
    is_answered_ = false;
}

void RecordPace::take_answer(const TraceEntry& entry) {
    if (is_answered_) {
        return;
    }
    is_answered_ = true;
    ++answered_;
    bytes_answered_ = bytes_sent_;
    last_clock_ = entry.clock;
}

std::string RecordPace::beginning() const {
    std::string text = printed("%04x", product_);
    if (component_) {
        text += printed("  component %d", *component_);
    }
    text += printed("  record %u", record_);
    const std::uint32_t done = record_ - (is_answered_ ? 0 : 1);
    if (records_) {
        text += printed(" of %u  %.0f %%", *records_,
                        static_cast<double>(done) * 100 / static_cast<double>(*records_));
    }
    if (milliseconds() > 0) {
        text += printed("  %.1f b/s", static_cast<double>(bytes_answered_) / milliseconds());
    }
    return text;
}

std::string RecordPace::line() const {
    if (!records_ || answered_ == 0) {
        return beginning();
    }
    const std::uint32_t done = record_ - (is_answered_ ? 0 : 1);
    const double left = static_cast<double>(*records_) - static_cast<double>(done);
    return beginning() + "  " + duration_text(milliseconds() / answered_ * left) + " left";
}

std::string RecordPace::last_line() const {
    return beginning() + "  after " + duration_text(milliseconds());
}
