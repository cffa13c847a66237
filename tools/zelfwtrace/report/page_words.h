/// \file
/// Numbers, times and places as a page writes them.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

using PageJson = nlohmann::ordered_json;

/// "27 341", with a narrow space that does not break.
std::string grouped(std::uint64_t number);

/// "850 ms", "7.51 s", "2 min 05 s".
std::string duration_words(double milliseconds);

/// "12.5%" of `whole`, within 0 and 100; three digits are enough for a pixel.
std::string percent(double part, double whole);

/// "1 device", "3 devices".
std::string counted_words(std::size_t count, const char* thing, const char* plural = "s");

/// The last part of a path.
std::string file_name_of(const std::string& path);

/// 1, 2 or 5 times a power of ten, so that `length` has at most `most` of them.
double round_step(double length, int most);
