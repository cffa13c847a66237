/// \file
/// How long a device took to answer each record of an image, as a chart.
#pragma once

#include "zelfwtrace/report/page_words.h"
#include "zelfwtrace/report/run_digest.h"

#include <vector>

/// Where the answers of an image lie, in milliseconds.
struct AnswerTimes {
    std::size_t answers = 0;
    std::uint32_t median = 0;
    std::uint32_t percentile = 0;  ///< the 99th
    std::uint32_t slowest = 0;
    /// At most one in a hundred, and far from the median; and every record without a good answer.
    std::vector<std::size_t> outliers;
};
AnswerTimes answer_times_of(const std::vector<RecordAnswer>& records);

/// `most_dots` bounds the dots of ordinary records; outliers are always drawn.
PageJson answer_chart_of(const std::vector<RecordAnswer>& records, std::size_t most_dots);
