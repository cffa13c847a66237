/// \file
/// What an update did, file by file, as the lines of its run tell.
#pragma once

#include "twin/run_lines.h"

#include <optional>
#include <string>
#include <vector>

namespace zelfsim {

/// A firmware file that the run found.
struct PlannedFile {
    std::string name;
    unsigned product = 0;
    unsigned component = 0;
    std::string level;
    std::string not_used;  ///< why it went to no device; empty when it did
};

/// A component that was sent a file, or was to be.
struct PlannedUpdate {
    std::string file;  ///< without its directory
    unsigned product = 0;
    unsigned component = 0;
    std::string serial, from, to;
    bool is_forced = false;
    double begin = 0, end = 0;  ///< milliseconds since the run began
    std::optional<int> rc;      ///< how it ended
};

struct UpdatePlan {
    std::vector<PlannedFile> files;
    std::vector<PlannedUpdate> updates;
    double duration = 0;  ///< milliseconds
};

UpdatePlan read_plan(const std::vector<RunLine>& lines);

}  // namespace zelfsim
