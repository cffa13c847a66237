#include "journal/zelfwtrace.h"
#include "zelfwtrace/escape.h"
#include "zelfwtrace/json_object.h"
#include "zelfwtrace/output.h"
#include "zelfwtrace/record_kind.h"

#include <cstdio>

namespace {

void add_transfer(JsonObject& json, const TraceEntry& entry, const Meaning& meaning) {
    json.text("device", printed("%04x", entry.product()));
    json.text("usage", printed("%04x", entry.usage()));
    json.text("message", meaning.message);
    if (!meaning.details.empty()) {
        json.text("details", meaning.details);
    }
    if (meaning.component) {
        json.number("component", static_cast<std::uint64_t>(*meaning.component));
    }
    if (meaning.record) {
        json.number("record", *meaning.record);
    }
    if (meaning.records) {
        json.number("records", *meaning.records);
    }
    if (meaning.answer_time) {
        json.text("answers", meaning.answered);
        json.number("answers_offset", meaning.answered_offset);
        json.number("answer_ms", *meaning.answer_time);
    }
    json.text("bytes", hexadecimal(entry.report()));
}

class JsonOutput : public TraceOutput {
  public:
    void take(const TraceEntry& entry, const Meaning& meaning) override {
        JsonObject json;
        json.number("offset", entry.offset);
        json.text("kind", record_kind_name(entry.kind));
        json.text("time", zelf::iso_time_text(entry.time_in_milliseconds()));
        json.number("clock_ms", static_cast<std::uint64_t>(entry.clock));
        json.number("process", entry.process);
        json.number("thread", entry.thread);
        if (entry.kind == trace_kind::text) {
            json.text("text", entry.payload);
        } else if (entry.is_transfer()) {
            add_transfer(json, entry, meaning);
        }
        puts(json.line().c_str());
    }
};

}  // namespace

std::unique_ptr<TraceOutput> json_output() {
    return std::make_unique<JsonOutput>();
}
