/// \file
/// What a run says of itself: its log and result file, taken apart.
#pragma once

#include <optional>
#include <string>
#include <vector>

/// The outcome that the log states for one component's update.
struct Claim {
    int product = 0;
    int component = 0;
    int rc = 0;
    bool is_forced = false;     ///< by option or marker
    bool has_reason = false;    ///< a line before the outcome tells what failed
    bool is_uncertain = false;  ///< a line before the outcome says that the result is
};

struct Journal {
    std::vector<Claim> claims;
    bool is_table_rebuilt = false;
    std::optional<int> updated;  ///< of "Updated %d devices"
    std::optional<int> error;    ///< of "Error %d flashing devices"
    bool says_none_updated = false;
    bool says_no_devices = false;

    const Claim* find(int product, int component) const;
};

Journal read_journal(const std::string& log);

/// A row of the result file.
struct ResultRow {
    int product = 0;
    int ec_level = 0;
    std::string text;
};

struct Results {
    int overall = -1;
    std::vector<ResultRow> rows;
    bool is_well_formed = false;
};

Results read_results(const std::string& text);

/// The result's text in a result file.
std::string result_text(int code);
/// The code of a text; -1 when it is none.
int result_code(const std::string& text);

/// Whether a line tells of a failure that the other log, of a sound run, does not know.
bool complains(const std::string& log, const std::string& sound_log);
