/// \file
/// The firmware images that a run of the updater sent, as its trace holds them.
#pragma once

#include "common/bytes.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

/// What the trace holds of an image between its erase and what came behind it.
struct SentImage {
    int product = 0;
    std::string file;                  ///< its path, as the log tells; else empty
    std::optional<int> level;          ///< as the log tells
    bool is_level_of_records = false;  ///< the run took levels from information records (-o 1)
    bool is_redirected = false;        ///< the run changed the component (-c)
    zelf::Bytes records;               ///< as they stand in a file, each with its length byte
    std::size_t record_count = 0;
    std::size_t zero_records = 0;  ///< data records of zeros only
    std::size_t data_records = 0;
    std::optional<std::size_t> announced;  ///< records of the file, as the log tells
    std::optional<int> checksum;           ///< none where the message is missing
    bool is_torn = false;  ///< a damaged place, or a message that is none of an image, is within it
};

struct SentImages {
    std::uint32_t run = 0;   ///< which of the file, from 1
    std::uint32_t runs = 0;  ///< how many the file has
    std::set<std::uint32_t> runs_with_images;
    std::vector<SentImage> images;
    std::string damage;  ///< the first damaged place; empty when there is none
};

/// Reads a run, counted from 1, or with a negative number from the last, which is -1. Throws
/// `std::runtime_error`.
SentImages read_sent_images(const std::string& path, std::int64_t run);
