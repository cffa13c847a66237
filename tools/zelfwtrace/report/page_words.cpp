#include "zelfwtrace/report/page_words.h"

#include "common/time_text.h"
#include "zelfwtrace/escape.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double second_length = zelf::milliseconds_of_a_second;
constexpr double minute_length = 60 * second_length;

/// U+202F.
constexpr const char* narrow_space = "\xE2\x80\xAF";
constexpr std::size_t group = 3;

}  // namespace

std::string grouped(std::uint64_t number) {
    std::string digits = std::to_string(number);
    if (digits.size() <= group + 1) {
        return digits;
    }
    std::string text;
    for (std::size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % group == 0) {
            text += narrow_space;
        }
        text += digits[i];
    }
    return text;
}

std::string duration_words(double milliseconds) {
    if (milliseconds < second_length) {
        return printed("%.0f ms", milliseconds);
    }
    if (milliseconds < minute_length) {
        return printed("%.2f s", milliseconds / second_length);
    }
    const double minutes = std::floor(milliseconds / minute_length);
    return printed("%.0f min %02.0f s", minutes,
                   std::floor((milliseconds - minutes * minute_length) / second_length));
}

std::string percent(double part, double whole) {
    const double share = whole > 0 ? std::clamp(part / whole, 0.0, 1.0) : 0;
    std::string text = printed("%.2f", share * 100);
    text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.') {
        text.pop_back();
    }
    return text + "%";
}

std::string counted_words(std::size_t count, const char* thing, const char* plural) {
    return grouped(count) + " " + thing + (count == 1 ? "" : plural);
}

std::string file_name_of(const std::string& path) {
    return one_line(path.substr(path.find_last_of('/') + 1));
}

double round_step(double length, int most) {
    double step = 1;
    while (length / step > most) {
        for (const double factor : {2.0, 2.5, 2.0}) {
            if (length / step > most) {
                step *= factor;
            }
        }
    }
    return step;
}
