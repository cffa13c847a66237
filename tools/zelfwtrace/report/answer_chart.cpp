#include "zelfwtrace/report/answer_chart.h"

#include "zelfwtrace/escape.h"

#include <algorithm>
#include <cmath>
#include <set>

namespace {

constexpr std::size_t one_in = 100;
/// An outlier takes this many times the median's time, and this many milliseconds more.
constexpr std::uint32_t outlier_factor = 3;
constexpr std::uint32_t outlier_distance = 5;
/// More of them are folded.
constexpr std::size_t few_outliers = 6;
/// The drawing's own units.
constexpr int chart_width = 1000;
constexpr int chart_height = 100;
constexpr double least_top = 12;

bool is_good(const RecordAnswer& record) {
    return record.milliseconds && !record.is_refused;
}

std::uint32_t ranked(const std::vector<std::uint32_t>& sorted, std::size_t hundredths) {
    // Nearest rank, without a fraction.
    const std::size_t rank = (sorted.size() * hundredths + one_in - 1) / one_in;
    return sorted[std::max<std::size_t>(rank, 1) - 1];
}

/// From 0 at the top to 1 at the bottom: tens are as far apart as hundreds are.
double height_of(double milliseconds, double top) {
    return 1 - std::log1p(milliseconds) / std::log1p(top);
}

double column_of(std::size_t record, std::size_t records) {
    return (static_cast<double>(record) + 0.5) / static_cast<double>(records);
}

/// One dot a place, however many records lie there.
std::string dots_of(const std::vector<RecordAnswer>& records, double top, std::size_t most) {
    std::set<std::pair<int, int>> places;
    for (std::size_t i = 0; i < records.size(); ++i) {
        if (is_good(records[i])) {
            places.emplace(std::lround(column_of(i, records.size()) * chart_width),
                           std::lround(height_of(*records[i].milliseconds, top) * chart_height));
        }
    }
    const std::size_t every = most == 0 ? 1 : (places.size() + most - 1) / most;
    std::string path;
    std::size_t number = 0;
    for (const auto& [x, y] : places) {
        if (number++ % std::max<std::size_t>(every, 1) == 0) {
            path += printed("M%d %dh0", x, y);
        }
    }
    return path;
}

std::string answer_words(const RecordAnswer& record) {
    if (!record.milliseconds) {
        return "no answer";
    }
    return printed("%u ms", *record.milliseconds) + (record.is_refused ? ", refused" : "");
}

PageJson outlier_of(const std::vector<RecordAnswer>& records, std::size_t number, double top) {
    const RecordAnswer& record = records[number];
    const bool is_lost = !is_good(record);
    return {{"record", grouped(number + 1)},
            {"offset", grouped(record.file_offset)},
            {"answer", answer_words(record)},
            {"x", percent(column_of(number, records.size()), 1)},
            {"y", is_lost ? "6%" : percent(height_of(*record.milliseconds, top), 1)},
            {"is_lost", is_lost}};
}

PageJson grid_of(double top) {
    PageJson lines = PageJson::array();
    for (const int value : {1, 10, 100, 1000, 10000, 100000}) {
        if (value < top) {
            lines.push_back(
                {{"y", percent(height_of(value, top), 1)},
                 {"text", value < 1000 ? printed("%d ms", value) : printed("%d s", value / 1000)}});
        }
    }
    return lines;
}

}  // namespace

AnswerTimes answer_times_of(const std::vector<RecordAnswer>& records) {
    AnswerTimes times;
    std::vector<std::uint32_t> sorted;
    for (const RecordAnswer& record : records) {
        if (is_good(record)) {
            sorted.push_back(*record.milliseconds);
        }
    }
    std::sort(sorted.begin(), sorted.end());
    times.answers = sorted.size();
    if (!sorted.empty()) {
        times.median = ranked(sorted, one_in / 2);
        times.percentile = ranked(sorted, one_in - 1);
        times.slowest = sorted.back();
    }
    const std::uint64_t bound = std::max<std::uint64_t>(
        std::uint64_t{times.median} * outlier_factor, times.median + outlier_distance);
    std::vector<std::size_t> slow;
    for (std::size_t i = 0; i < records.size(); ++i) {
        if (!is_good(records[i])) {
            times.outliers.push_back(i);
        } else if (*records[i].milliseconds > bound) {
            slow.push_back(i);
        }
    }
    std::stable_sort(slow.begin(), slow.end(), [&records](std::size_t one, std::size_t other) {
        return *records[one].milliseconds > *records[other].milliseconds;
    });
    slow.resize(std::min(slow.size(), (records.size() + one_in - 1) / one_in));
    times.outliers.insert(times.outliers.end(), slow.begin(), slow.end());
    std::sort(times.outliers.begin(), times.outliers.end());
    return times;
}

PageJson answer_chart_of(const std::vector<RecordAnswer>& records, std::size_t most_dots) {
    const AnswerTimes times = answer_times_of(records);
    const double top = std::max(times.slowest * 1.3, least_top);
    PageJson json = {{"records", counted_words(records.size(), "record")},
                     {"last", grouped(records.size())},
                     {"has_answers", times.answers > 0},
                     {"median", printed("%u ms", times.median)},
                     {"percentile", printed("%u ms", times.percentile)},
                     {"slowest", printed("%u ms", times.slowest)},
                     {"median_y", percent(height_of(times.median, top), 1)},
                     {"percentile_y", percent(height_of(times.percentile, top), 1)},
                     {"grid", grid_of(top)},
                     {"dots", dots_of(records, top, most_dots)},
                     {"outliers", PageJson::array()},
                     {"has_outliers", !times.outliers.empty()},
                     {"has_many_outliers", times.outliers.size() > few_outliers},
                     {"outlier_count", counted_words(times.outliers.size(), "outlier")}};
    for (const std::size_t number : times.outliers) {
        json["outliers"].push_back(outlier_of(records, number, top));
    }
    return json;
}
