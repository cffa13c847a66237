#include "journal/zelfwtrace.h"
#include "zelfwtrace/escape.h"
#include "zelfwtrace/json_object.h"
#include "zelfwtrace/output.h"
#include "zelfwtrace/summary.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace {

constexpr double longest_bar = 40;

std::string counted(std::uint64_t count, const char* thing, const char* plural = "s") {
    return printed("%" PRIu64 " %s%s", count, thing, count == 1 ? "" : plural);
}

/// In a text, and in JSON.
double mean(const MessageCount& count) {
    return count.answers == 0
               ? 0
               : static_cast<double>(count.answer_time) / static_cast<double>(count.answers);
}

class SummaryOutput : public TraceOutput {
  public:
    void take(const TraceEntry& entry, const Meaning& meaning) override {
        if (entry.is_transfer()) {
            devices_[entry.product()].take(entry, meaning);
        } else if (entry.kind == trace_kind::version) {
            ++runs_;
        } else {
            ++texts_;
        }
    }

  protected:
    DeviceSummaries devices_;
    std::uint64_t runs_ = 0;
    std::uint64_t texts_ = 0;
};

void print_messages(const DeviceSummary& device) {
    printf("\n  %-30s %8s %10s %8s %10s %10s\n", "Message", "Count", "Bytes", "Answers", "Mean ms",
           "Slowest ms");
    for (std::size_t i = 0; i < device.messages.size(); ++i) {
        const MessageCount& one = device.messages[i];
        if (one.sent == 0 && one.answers == 0) {
            continue;
        }
        printf("  %-30s %8" PRIu64 " %10" PRIu64 " %8" PRIu64, message_names()[i].c_str(), one.sent,
               one.bytes, one.answers);
        if (one.answers != 0) {
            printf(" %10.1f %10" PRIu32, mean(one), one.slowest);
        }
        printf("\n");
    }
}

/// "0", or "4 to 7".
std::string range_label(std::size_t range) {
    const std::uint64_t low = shortest_of_range(range);
    const std::uint64_t high = longest_of_range(range);
    return low == high ? std::to_string(low) : std::to_string(low) + " to " + std::to_string(high);
}

/// As long as the share of the greatest count; a count that is not 0 shows.
std::string bar(std::uint64_t count, std::uint64_t most) {
    if (count == 0) {
        return "";
    }
    const double share = static_cast<double>(count) / static_cast<double>(most);
    return "  " + std::string(static_cast<std::size_t>(std::max(1.0, share * longest_bar)), '#');
}

void print_answer_times(const DeviceSummary& device) {
    const auto is_used = [](std::uint64_t count) { return count != 0; };
    const auto& times = device.answer_times;
    const auto first = std::find_if(times.begin(), times.end(), is_used);
    if (first == times.end()) {
        return;
    }
    const auto last = std::find_if(times.rbegin(), times.rend(), is_used).base();
    const std::uint64_t most = *std::max_element(first, last);
    printf("\n  %20s %8s\n", "Answer time in ms", "Answers");
    for (auto at = first; at != last; ++at) {
        printf("  %20s %8" PRIu64 "%s\n",
               range_label(static_cast<std::size_t>(at - times.begin())).c_str(), *at,
               bar(*at, most).c_str());
    }
}

class SummaryText : public SummaryOutput {
  public:
    explicit SummaryText(zelf::TimeZone zone) : zone_(zone) {}

    std::string finish() override {
        printf("%s, %s, %s\n", counted(runs_, "run").c_str(), counted(texts_, "text").c_str(),
               counted(devices_.size(), "device").c_str());
        for (const auto& [product, device] : devices_) {
            print(product, device);
        }
        return "";
    }

  private:
    void print(std::uint16_t product, const DeviceSummary& device) const {
        const MessageCount total = device.total();
        printf("\nDevice %04x\n", product);
        printf("  Time      %s to %s\n", zelf::time_text(device.first, zone_).c_str(),
               zelf::time_text(device.last, zone_).c_str());
        printf("  Sent      %s, %s\n", counted(total.sent, "message").c_str(),
               counted(total.bytes, "byte").c_str());
        printf("  Received  %s, %s; %s, %s\n", counted(device.statuses, "status", "es").c_str(),
               counted(device.status_bytes, "byte").c_str(),
               counted(device.data_answers, "data answer").c_str(),
               counted(device.data_bytes, "byte").c_str());
        printf("  Refused   %" PRIu64 " rejected, %s\n", device.rejects,
               counted(device.operation_errors, "operation error").c_str());
        if (total.answers != 0) {
            const std::size_t slowest = device.slowest_message();
            printf("  Slowest   %s, %u ms, at offset %" PRIu64 "\n",
                   message_names()[slowest].c_str(), device.messages[slowest].slowest,
                   device.messages[slowest].slowest_offset);
        }
        print_messages(device);
        print_answer_times(device);
    }

    zelf::TimeZone zone_;
};

std::string message_json(std::size_t place, const MessageCount& count) {
    JsonObject json;
    json.text("message", message_names()[place]);
    json.number("count", count.sent);
    json.number("bytes", count.bytes);
    json.number("answers", count.answers);
    if (count.answers != 0) {
        json.raw("mean_ms", printed("%.1f", mean(count)));
        json.number("slowest_ms", count.slowest);
        json.number("slowest_offset", count.slowest_offset);
    }
    return json.line();
}

std::string range_json(std::size_t range, std::uint64_t answers) {
    JsonObject json;
    json.number("from_ms", shortest_of_range(range));
    json.number("to_ms", longest_of_range(range));
    json.number("answers", answers);
    return json.line();
}

/// A JSON array.
class JsonArray {
  public:
    void add(const std::string& json) { items_.append(items_.empty() ? "" : ", ").append(json); }
    std::string text() const { return "[" + items_ + "]"; }

  private:
    std::string items_;
};

class SummaryJson : public SummaryOutput {
  public:
    std::string finish() override {
        for (const auto& [product, device] : devices_) {
            print(product, device);
        }
        return "";
    }

  private:
    static void print(std::uint16_t product, const DeviceSummary& device) {
        JsonArray messages, ranges;
        for (std::size_t i = 0; i < device.messages.size(); ++i) {
            if (device.messages[i].sent != 0 || device.messages[i].answers != 0) {
                messages.add(message_json(i, device.messages[i]));
            }
        }
        for (std::size_t i = 0; i < device.answer_times.size(); ++i) {
            if (device.answer_times[i] != 0) {
                ranges.add(range_json(i, device.answer_times[i]));
            }
        }
        const MessageCount total = device.total();
        JsonObject json;
        json.text("device", printed("%04x", product));
        json.text("first", zelf::iso_time_text(device.first));
        json.text("last", zelf::iso_time_text(device.last));
        json.number("sent", total.sent);
        json.number("sent_bytes", total.bytes);
        json.number("statuses", device.statuses);
        json.number("status_bytes", device.status_bytes);
        json.number("data_answers", device.data_answers);
        json.number("data_bytes", device.data_bytes);
        json.number("rejected", device.rejects);
        json.number("operation_errors", device.operation_errors);
        json.raw("messages", messages.text());
        json.raw("answer_times", ranges.text());
        puts(json.line().c_str());
    }
};

}  // namespace

std::unique_ptr<TraceOutput> summary_output(zelf::TimeZone zone) {
    return std::make_unique<SummaryText>(zone);
}

std::unique_ptr<TraceOutput> summary_json_output() {
    return std::make_unique<SummaryJson>();
}
