#include "journal.h"

#include "support/files.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <map>
#include <regex>

namespace {

constexpr std::array result_texts = {"Flash succeeded",
                                     "Firmware file corrupt",
                                     "Error updating the device",
                                     "Device did not respond",
                                     "Device EC version greather or equal than firmware file",
                                     "Device is not attached to the system",
                                     "Error at device reset",
                                     "Reset succeeded",
                                     "Firmware file not found",
                                     "",
                                     "EC matched, firmware update forced",
                                     "No Firmware update attempted",
                                     "",
                                     "Interface not avilable"};

constexpr std::array complaints = {"Bad status",
                                   "Could not",
                                   "Operation error",
                                   "end point halted",
                                   "failed",
                                   "Failure reading",
                                   "not available",
                                   "not connected",
                                   "not mod",
                                   "not read",
                                   "not responding",
                                   "not supported",
                                   "overflow",
                                   "Command reject",
                                   "error response",
                                   "timed out",
                                   "component list not correct",
                                   "pipe error",
                                   "I/O Error",
                                   "actual length"};

/// Says only that something failed, and not what.
constexpr std::array bare_failures = {"Firmware update FAILED", "Update failed of",
                                      "Device gone while"};

template <std::size_t size>
bool contains_any(const std::string& line, const std::array<const char*, size>& texts) {
    return std::any_of(texts.begin(), texts.end(),
                       [&](const char* text) { return line.find(text) != std::string::npos; });
}

/// Whether the line begins so; the rest is matched only then.
bool match(const std::string& line, const char* begin, const std::regex& whole,
           std::smatch& parts) {
    return line.starts_with(begin) && std::regex_search(line, parts, whole);
}

int hexadecimal(const std::string& text) {
    return std::stoi(text, nullptr, 16);
}

const std::regex finished_line(
    "ID ([0-9a-f]{1,4}) COMP: ([0-9]{1,3}) finished, rc=(-?[0-9]{1,3})$");
const std::regex updated_line("^Updated ([0-9]{1,5}) device");
const std::regex error_line("^Error (-?[0-9]{1,5}) flashing devices$");
const std::regex overall_line("^([0-9]{1,3}) *$");
const std::regex row_line("^PID ([0-9a-f]{1,4}) EC level: ([0-9a-f]{2,4})\\.([0-9a-f]{2}): (.*) $");

bool is_complaint(const std::string& line) {
    return contains_any(line, complaints) && !contains_any(line, bare_failures);
}

/// Follows the lines of one component's update.
class ClaimReader {
  public:
    explicit ClaimReader(std::vector<Claim>& claims) : claims_(claims) {}

    void read(const std::string& line) {
        Claim claim;
        std::smatch parts;
        if (line.find("Firmware file found:") != std::string::npos) {
            current_ = {};
        } else if (line.find("Force update for Product ID:") != std::string::npos) {
            current_.is_forced = true;
        } else if (match(line, "Firmware update of Product", finished_line, parts)) {
            claim.product = hexadecimal(parts[1]);
            claim.component = std::stoi(parts[2]);
            claim.rc = std::stoi(parts[3]);
            claim.is_forced = current_.is_forced;
            claim.has_reason = current_.has_reason;
            claim.is_uncertain = current_.is_uncertain;
            claims_.push_back(claim);
            current_ = {};
        } else if (line.find("The result is uncertain: ") != std::string::npos) {
            current_.is_uncertain = true;
        } else if (line.find("Reset to be done") != std::string::npos) {
            // The reset cuts the connection: what is said from here on is no reason.
            is_before_reset_ = false;
        } else if (line.find("Starting firmware update") != std::string::npos) {
            is_before_reset_ = true;
        } else if (is_before_reset_ && is_complaint(line)) {
            current_.has_reason = true;
        }
    }

  private:
    std::vector<Claim>& claims_;
    Claim current_;
    bool is_before_reset_ = true;
};

}  // namespace

const Claim* Journal::find(int product, int component) const {
    const auto found = std::find_if(claims.begin(), claims.end(), [&](const Claim& claim) {
        return claim.product == product && claim.component == component;
    });
    return found == claims.end() ? nullptr : &*found;
}

Journal read_journal(const std::string& log) {
    Journal journal;
    ClaimReader reader(journal.claims);
    for (const std::string& line : lines_of(log)) {
        std::smatch parts;
        reader.read(line);
        if (line == "Sleeping finished") {
            journal.is_table_rebuilt = true;
        } else if (line == "No devices updated") {
            journal.says_none_updated = true;
        } else if (line == "No devices found") {
            journal.says_no_devices = true;
        } else if (match(line, "Updated ", updated_line, parts)) {
            journal.updated = std::stoi(parts[1]);
        } else if (match(line, "Error ", error_line, parts)) {
            journal.error = std::stoi(parts[1]);
        }
    }
    return journal;
}

Results read_results(const std::string& text) {
    Results all;
    const auto lines = lines_of(text);
    std::smatch parts;
    all.is_well_formed = !lines.empty() && std::regex_search(lines[0], parts, overall_line);
    if (all.is_well_formed) {
        all.overall = std::stoi(parts[1]);
    }
    for (std::size_t i = 1; i < lines.size(); ++i) {
        if (match(lines[i], "PID ", row_line, parts)) {
            all.rows.push_back({hexadecimal(parts[1]),
                                hexadecimal(parts[2]) << 8 | hexadecimal(parts[3]), parts[4]});
        } else {
            all.is_well_formed = false;
        }
    }
    return all;
}

std::string result_text(int code) {
    return code >= 0 && code < static_cast<int>(result_texts.size())
               ? result_texts[static_cast<std::size_t>(code)]
               : "";
}

int result_code(const std::string& text) {
    const auto* const found = std::find(result_texts.begin(), result_texts.end(), text);
    return found == result_texts.end()
               ? -1
               : static_cast<int>(std::distance(result_texts.begin(), found));
}

bool complains(const std::string& log, const std::string& sound_log) {
    std::map<std::string, int> known;
    for (const std::string& line : lines_of(sound_log)) {
        ++known[line];
    }
    const auto lines = lines_of(log);
    return std::any_of(lines.begin(), lines.end(), [&known](const std::string& line) {
        return is_complaint(line) && --known[line] < 0;
    });
}
