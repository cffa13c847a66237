/// \file
/// The lines that a run of the updater wrote, with their times.
#pragma once

#include <string>
#include <vector>

namespace zelfsim {

struct RunLine {
    double clock = 0;  ///< milliseconds since the run began
    std::string text;
};

/// Those of the last run in a trace. Throws FileError.
std::vector<RunLine> last_run_lines(const std::string& trace);

}  // namespace zelfsim
