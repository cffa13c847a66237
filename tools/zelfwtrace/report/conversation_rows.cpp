#include "zelfwtrace/report/conversation_rows.h"

#include "zelfwtrace/escape.h"
#include "zelfwtrace/explanation_words.h"
#include "zelfwtrace/report/answer_chart.h"

#include <algorithm>
#include <deque>

namespace {

/// Of a row's markup.
constexpr std::size_t row_bytes = 90;

using Records = std::vector<RecordAnswer>;

PageJson row(double clock, std::uint64_t offset) {
    return {{"clock", printed("%.3f", seconds(clock))}, {"offset", grouped(offset)}};
}

PageJson row_of(const TalkLine& line) {
    PageJson json = row(line.clock, line.offset);
    json["kind"] = line.is_bad                           ? "bad"
                   : line.kind == TalkLine::Kind::text   ? "log"
                   : line.kind == TalkLine::Kind::answer ? "answer"
                                                         : "sent";
    if (line.product) {
        json["product"] = printed("%04x", *line.product);
    }
    json["is_sent"] = line.kind == TalkLine::Kind::sent;
    json["is_answer"] = line.kind == TalkLine::Kind::answer;
    json["text"] = line.text;
    if (!line.answer.empty()) {
        json["answer"] = line.answer;
    }
    if (line.milliseconds) {
        json["time"] = printed("%u ms", *line.milliseconds);
    }
    return json;
}

/// Records from `first` to `last`, which were taken all, or a single one.
PageJson records_row(const TalkLine& line, const Records& records, std::size_t first,
                     std::size_t last) {
    const RecordAnswer& one = records[first];
    PageJson json = row(one.clock, one.trace_offset);
    json["kind"] = "sent";
    json["product"] = printed("%04x", line.product.value_or(0));
    json["is_sent"] = true;
    std::uint32_t shortest = UINT32_MAX, longest = 0;
    for (std::size_t i = first; i <= last; ++i) {
        shortest = std::min(shortest, records[i].milliseconds.value_or(UINT32_MAX));
        longest = std::max(longest, records[i].milliseconds.value_or(0));
    }
    if (first == last) {
        json["text"] = "record " + grouped(first + 1);
        if (!one.milliseconds || one.is_refused) {
            json["kind"] = "bad";
        }
        json["answer"] = !one.milliseconds ? "no answer" : one.is_refused ? "refused" : "completed";
    } else {
        json["text"] = "records " + grouped(first + 1) + " to " + grouped(last + 1);
        json["answer"] = "all completed";
    }
    if (longest > 0 || one.milliseconds) {
        json["time"] = shortest == longest ? printed("%u ms", longest)
                                           : printed("%u to %u ms", shortest, longest);
    }
    return json;
}

/// The first record of an image, its last one and its outliers have rows of their own.
void add_records(std::deque<PageJson>& rows, const TalkLine& line, const Records& records) {
    const AnswerTimes times = answer_times_of(records);
    const auto stands_alone = [&](std::size_t number) {
        return number == 0 || number + 1 == records.size() ||
               std::binary_search(times.outliers.begin(), times.outliers.end(), number);
    };
    for (std::size_t first = line.first; first <= line.last; ++first) {
        std::size_t last = first;
        while (!stands_alone(first) && last < line.last && !stands_alone(last + 1)) {
            ++last;
        }
        rows.push_back(records_row(line, records, first, last));
        first = last;
    }
}

std::deque<PageJson> rows_of(const std::deque<TalkLine>& lines, const RunDigest& digest) {
    std::deque<PageJson> rows;
    for (const TalkLine& line : lines) {
        if (line.kind == TalkLine::Kind::records) {
            add_records(rows, line, digest.records.at(line.attempt));
        } else {
            rows.push_back(row_of(line));
        }
    }
    return rows;
}

std::size_t bytes_of(const PageJson& row) {
    return row_bytes + row.value("text", "").size() + row.value("answer", "").size();
}

}  // namespace

PageJson conversation_rows(const RunDigest& digest, std::size_t most_bytes) {
    std::deque<PageJson> head = rows_of(digest.talk, digest);
    std::deque<PageJson> tail = rows_of(digest.late_talk, digest);
    std::uint64_t left_out = digest.left_out;
    if (left_out == 0) {
        std::move(tail.begin(), tail.end(), std::back_inserter(head));
        tail.assign(
            std::make_move_iterator(head.begin() + static_cast<std::ptrdiff_t>(head.size() / 2)),
            std::make_move_iterator(head.end()));
        head.resize(head.size() - tail.size());
    }
    const auto keep = [&left_out, most_bytes](std::deque<PageJson>& rows, bool from_front) {
        std::size_t kept = 0, bytes = 0;
        while (kept < rows.size()) {
            bytes += bytes_of(from_front ? rows[kept] : rows[rows.size() - 1 - kept]);
            if (bytes > most_bytes / 2) {
                break;
            }
            ++kept;
        }
        left_out += rows.size() - kept;
        const auto count = static_cast<std::ptrdiff_t>(rows.size() - kept);
        from_front ? rows.erase(rows.end() - count, rows.end())
                   : rows.erase(rows.begin(), rows.begin() + count);
    };
    keep(head, true);
    keep(tail, false);
    PageJson rows = PageJson::array();
    std::move(head.begin(), head.end(), std::back_inserter(rows));
    if (left_out > 0) {
        rows.push_back({{"left_out", grouped(left_out)}});
    }
    std::move(tail.begin(), tail.end(), std::back_inserter(rows));
    return rows;
}
