#include "zelfwtrace/summary.h"

#include "journal/zelfwtrace.h"
#include "zelfwtrace/message.h"

#include <algorithm>
#include <bit>
#include <utility>

namespace {

std::size_t place_of(const std::string& name) {
    const auto& names = message_names();
    const auto found = std::find(names.begin(), names.end(), name);
    // The last one stands for every message without a name.
    return static_cast<std::size_t>(std::min(found, names.end() - 1) - names.begin());
}

}  // namespace

const std::vector<std::string>& message_names() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> all;
        for (const CommandRow& row : command_table) {
            all.emplace_back(row.name);
        }
        for (const auto kind : {SentMessage::Kind::image_record, SentMessage::Kind::checksum,
                                SentMessage::Kind::unknown}) {
            SentMessage message;
            message.kind = kind;
            all.push_back(message.name());
        }
        return all;
    }();
    return names;
}

std::uint64_t shortest_of_range(std::size_t range) {
    return range == 0 ? 0 : std::uint64_t{1} << (range - 1);
}

std::uint64_t longest_of_range(std::size_t range) {
    return (std::uint64_t{1} << range) - 1;
}

DeviceSummary::DeviceSummary() : messages(message_names().size()) {}

void DeviceSummary::take(const TraceEntry& entry, const Meaning& meaning) {
    const std::int64_t time = entry.time_in_milliseconds();
    first = std::min(first, time);
    last = std::max(last, time);
    const std::size_t size = entry.report().size();
    if (entry.kind == trace_kind::report_written) {
        MessageCount& count = messages[place_of(meaning.message)];
        ++count.sent;
        count.bytes += size;
    } else if (entry.kind == trace_kind::status_read) {
        take_status(entry, meaning);
    } else {
        ++data_answers;
        data_bytes += size;
    }
}

void DeviceSummary::take_status(const TraceEntry& entry, const Meaning& meaning) {
    ++statuses;
    status_bytes += entry.report().size();
    const AnswerView report(entry.report().data(), entry.report().size());
    rejects += (report[0] & status_flag::reject) != 0 ? 1 : 0;
    operation_errors += (report[0] & status_flag::operation_error) != 0 ? 1 : 0;
    if (!meaning.answer_time) {
        return;
    }
    MessageCount& count = messages[place_of(meaning.answered)];
    const std::uint32_t time = *meaning.answer_time;
    ++count.answers;
    count.answer_time += time;
    if (count.answers == 1 || time > count.slowest) {
        count.slowest = time;
        count.slowest_offset = meaning.answered_offset;
    }
    ++answer_times.at(static_cast<std::size_t>(std::bit_width(time)));
}

MessageCount DeviceSummary::total() const {
    MessageCount all;
    for (const MessageCount& one : messages) {
        all.sent += one.sent;
        all.bytes += one.bytes;
        all.answers += one.answers;
        all.answer_time += one.answer_time;
    }
    return all;
}

std::size_t DeviceSummary::slowest_message() const {
    const auto rank = [](const MessageCount& count) {
        return std::pair(count.answers != 0, count.slowest);
    };
    const auto slowest = std::max_element(
        messages.begin(), messages.end(),
        [&rank](const MessageCount& l, const MessageCount& r) { return rank(l) < rank(r); });
    return static_cast<std::size_t>(slowest - messages.begin());
}
