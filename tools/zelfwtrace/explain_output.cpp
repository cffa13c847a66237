#include "zelfwtrace/escape.h"
#include "zelfwtrace/explanation.h"
#include "zelfwtrace/explanation_words.h"
#include "zelfwtrace/output.h"

#include <cstdio>
#include <nlohmann/json.hpp>
#include <sstream>

namespace {

using OrderedJson = nlohmann::ordered_json;

constexpr int exit_explained = 3;
constexpr std::size_t line_width = 92;

/// A paragraph with its name in front, indented under it.
void print_paragraph(const char* name, const std::string& text) {
    constexpr const char* indent = "                 ";
    std::istringstream words(text);
    std::string line = printed("    %-13s", name);
    for (std::string word; words >> word;) {
        if (line.size() + 1 + word.size() > line_width && line.size() > 17) {
            puts(line.c_str());
            line = indent;
        }
        line += (line.size() == 17 ? "" : " ") + word;
    }
    puts(line.c_str());
}

void print_lines(const char* name, const std::vector<StoryLine>& lines) {
    for (const StoryLine& line : lines) {
        print_paragraph(name, place_in_trace(line) + ": " + one_line(line.text));
        name = "";
    }
}

void print_reasons(const Explanation& explanation) {
    print_paragraph("Cause:", explanation.cause->words);
    if (!explanation.state.empty()) {
        print_paragraph("State:", explanation.state);
    }
    print_paragraph("To do:", explanation.remedy);
    print_lines("Evidence:", explanation.evidence);
    print_lines("Consequence:", explanation.consequences);
}

void print_attempt(const Attempt& attempt, const Explanation& explanation) {
    printf("  %s: %s: %s\n", subject(attempt).c_str(), task(attempt).c_str(),
           outcome_name(explanation.outcome));
    if (explanation.cause == nullptr) {
        return;
    }
    print_paragraph("How far:", progress_words(attempt));
    if (attempt.last) {
        print_paragraph("On the wire:", wire_words(*attempt.last, explanation));
    }
    print_reasons(explanation);
}

void print_run(const Run& run, std::size_t number, zelf::TimeZone zone, std::size_t& explained) {
    printf("Run %zu: %s, %.3f seconds, process %u\n", number,
           zelf::time_text(run.time, zone).c_str(), seconds(run.length), run.process);
    printf("  Command line: %s\n", run.has_command ? one_line(run.command).c_str() : "not known");
    if (!run.has_begin) {
        puts("  The run's beginning is not in the file");
    }
    for (std::size_t i = 0; i < run.attempts.size(); ++i) {
        const Explanation explanation = explain_attempt(run, i);
        if (is_shown(run.attempts[i], explanation)) {
            print_attempt(run.attempts[i], explanation);
        }
        explained += explanation.cause != nullptr ? 1 : 0;
    }
    for (const StoryLine& line : run.not_due) {
        printf("  %s\n", one_line(line.text).c_str());
    }
    const Explanation explanation = explain_run(run);
    printf("  The run: %s\n", outcome_name(explanation.outcome));
    if (explanation.cause != nullptr) {
        ++explained;
        print_reasons(explanation);
    }
}

OrderedJson json_of(const StoryLine& line) {
    return {{"offset", line.offset}, {"clock_ms", line.clock}, {"text", line.text}};
}

OrderedJson json_of(const std::vector<StoryLine>& lines) {
    OrderedJson all = OrderedJson::array();
    for (const StoryLine& line : lines) {
        all.push_back(json_of(line));
    }
    return all;
}

void add_explanation(OrderedJson& json, const Explanation& explanation) {
    json["outcome"] = outcome_name(explanation.outcome);
    if (explanation.cause == nullptr) {
        return;
    }
    json["cause"] = explanation.cause->name;
    json["cause_words"] = explanation.cause->words;
    if (!explanation.state.empty()) {
        json["state"] = explanation.state;
    }
    json["remedy"] = explanation.remedy;
    json["evidence"] = json_of(explanation.evidence);
    json["consequences"] = json_of(explanation.consequences);
}

OrderedJson json_of(const ImageProgress& image) {
    OrderedJson json = {{"records_sent", image.records_sent},
                        {"records_taken", image.records_taken}};
    if (image.records) {
        json["records"] = *image.records;
    }
    if (image.records_sent > 0) {
        json["file_offset"] = image.offset;
    }
    json["step"] = step_words(image);
    json["kilobytes_per_second"] = kilobytes_per_second(image);
    return json;
}

OrderedJson json_of(const Attempt& attempt, const Explanation& explanation) {
    OrderedJson json = {{"kind", kind_name(attempt.kind)},
                        {"device", printed("%04x", attempt.product)}};
    if (attempt.component) {
        json["component"] = *attempt.component;
    }
    if (attempt.serial) {
        json["serial"] = *attempt.serial;
    }
    if (!attempt.place.empty()) {
        json["place"] = attempt.place;
    }
    json["offset"] = attempt.begin.offset;
    json["duration_ms"] = attempt.end - attempt.begin.clock;
    if (attempt.kind == Attempt::Kind::update) {
        json["file"] = attempt.file;
        json["level_before"] = attempt.level_before;
        json["level_after"] = attempt.level_after;
        json["image"] = json_of(attempt.image);
    }
    if (attempt.last) {
        json["last_message"] = json_of(attempt.last->sent);
        json["last_message_lost"] = attempt.last->is_lost;
        json["last_answer"] = attempt.last->answer ? json_of(*attempt.last->answer) : OrderedJson();
    }
    add_explanation(json, explanation);
    json["remarks"] = json_of(attempt.remarks);
    return json;
}

OrderedJson json_of(const Run& run, std::size_t& explained) {
    OrderedJson json = {{"process", run.process},
                        {"time", zelf::iso_time_text(run.time)},
                        {"duration_ms", run.length},
                        {"command_line", run.command}};
    add_explanation(json, explain_run(run));
    explained += json.contains("cause") ? 1 : 0;
    json["not_due"] = json_of(run.not_due);
    json["devices"] = OrderedJson::array();
    for (std::size_t i = 0; i < run.attempts.size(); ++i) {
        json["devices"].push_back(json_of(run.attempts[i], explain_attempt(run, i)));
        explained += json["devices"].back().contains("cause") ? 1 : 0;
    }
    return json;
}

class ExplainOutput : public TraceOutput {
  public:
    ExplainOutput(zelf::TimeZone zone, bool is_json, std::uint32_t first_run)
        : zone_(zone), is_json_(is_json), first_run_(first_run) {}

    void take(const TraceEntry& entry, const Meaning& meaning) override {
        stories_.take(entry, meaning);
    }
    std::string finish() override {
        std::size_t number = first_run_;
        for (const Run& run : stories_.runs()) {
            if (is_json_) {
                // What a device sent need not be UTF-8.
                puts(json_of(run, explained_)
                         .dump(-1, ' ', false, OrderedJson::error_handler_t::replace)
                         .c_str());
            } else {
                fputs(number == first_run_ ? "" : "\n", stdout);
                print_run(run, number++, zone_, explained_);
            }
        }
        return "";
    }
    int exit_code() const override { return explained_ > 0 ? exit_explained : 0; }

  private:
    zelf::TimeZone zone_;
    bool is_json_;
    std::uint32_t first_run_;
    std::size_t explained_ = 0;
    RunStories stories_;
};

}  // namespace

std::unique_ptr<TraceOutput> explain_output(zelf::TimeZone zone, bool is_json,
                                            std::uint32_t first_run) {
    return std::make_unique<ExplainOutput>(zone, is_json, first_run);
}
