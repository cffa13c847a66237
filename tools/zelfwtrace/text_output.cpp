#include "common/time_text.h"
#include "journal/zelfwtrace.h"
#include "zelfwtrace/escape.h"
#include "zelfwtrace/output.h"

#include <cstdio>

namespace {

/// What a line says behind its stamps.
std::string words(const TraceEntry& entry, const Meaning& meaning) {
    switch (entry.kind) {
        case trace_kind::version:
            return meaning.details;
        case trace_kind::text:
            return "text: " + one_line(entry.payload);
        case trace_kind::status_read: {
            const std::string text = "status " + meaning.details;
            return meaning.answered.empty()
                       ? text
                       : printed("%s (%s, %u ms)", text.c_str(), meaning.answered.c_str(),
                                 meaning.answer_time.value_or(0));
        }
        case trace_kind::feature_read:
            return "data: " + meaning.details;
        default:
            break;
    }
    return meaning.details.empty() ? meaning.title()
                                   : meaning.title() + " (" + meaning.details + ")";
}

class TextOutput : public TraceOutput {
  public:
    explicit TextOutput(const TextStyle& style) : style_(style) {}

    void take(const TraceEntry& entry, const Meaning& meaning) override {
        std::string line =
            printed("%s %9.3f  %u/%08x  ",
                    zelf::time_text(entry.time_in_milliseconds(), style_.zone).c_str(),
                    entry.clock / zelf::milliseconds_of_a_second, entry.process, entry.thread);
        line += entry.is_transfer() ? printed("%04x", entry.product()) : "-   ";
        line += "  " + words(entry, meaning);
        if (style_.with_bytes && entry.is_transfer()) {
            line += " | " + hexadecimal(entry.report(), " ");
        }
        puts(line.c_str());
    }

  private:
    TextStyle style_;
};

}  // namespace

std::unique_ptr<TraceOutput> text_output(const TextStyle& style) {
    return std::make_unique<TextOutput>(style);
}
