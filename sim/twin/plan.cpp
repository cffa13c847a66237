#include "twin/plan.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <set>
#include <string_view>
#include <system_error>

namespace zelfsim {

namespace {

unsigned number_behind(const std::string& line, std::string_view key, int base) {
    const std::size_t at = line.find(key);
    return at == std::string::npos
               ? 0
               : static_cast<unsigned>(std::strtoul(line.c_str() + at + key.size(), nullptr, base));
}

std::string word_behind(const std::string& line, std::string_view key, std::string_view ends) {
    const std::size_t at = line.rfind(key);
    if (at == std::string::npos) {
        return "";
    }
    const std::size_t begin = at + key.size();
    return line.substr(begin, line.find_first_of(ends, begin) - begin);
}

/// The result behind the last equals sign; none in a line that damage cut short.
std::optional<int> result_in(const std::string& line) {
    const std::string digits = word_behind(line, "=", " \n");
    int result = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), result);
    return error == std::errc{} ? std::optional(result) : std::nullopt;
}

std::string trimmed(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
        text.pop_back();
    }
    return text;
}

class PlanReader {
  public:
    UpdatePlan read(const std::vector<RunLine>& lines) {
        for (const RunLine& line : lines) {
            plan_.duration = line.clock;
            take(line);
        }
        explain_unused();
        return plan_;
    }

  private:
    void take(const RunLine& line) {
        const std::string& text = line.text;
        if (text.starts_with("  ") && text.find("Version='") != std::string::npos) {
            take_file(text);
        } else if (const std::size_t at = text.find("Firmware file found:  ");
                   at != std::string::npos) {
            const std::string path = trimmed(text.substr(at + 22));
            considered_ = {};
            considered_.file = path.substr(path.rfind('/') + 1);
        } else if (text.starts_with("  File   - PID:")) {
            considered_.to = word_behind(text, "EC: ", " \n");
        } else if (text.starts_with("  Device - PID:")) {
            considered_.product = number_behind(text, "PID:", 16);
            considered_.component = number_behind(text, "COMP:", 16);
            considered_.from = word_behind(text, "EC: ", " \n");
            considered_.serial = word_behind(text, "SN='", "'");
        } else if (text.starts_with("    Force update")) {
            considered_.is_forced = true;
        } else if (text.starts_with("    Starting firmware update")) {
            considered_.begin = considered_.end = line.clock;
            plan_.updates.push_back(considered_);
        } else if (text.starts_with("Firmware update of Product ID") && !plan_.updates.empty()) {
            plan_.updates.back().end = line.clock;
            plan_.updates.back().rc = result_in(text);
        } else {
            take_refusal(text);
        }
    }

    void take_file(const std::string& text) {
        PlannedFile file;
        file.product = number_behind(text, " PID: ", 16);
        file.component = number_behind(text, " COMP: ", 10);
        file.level = word_behind(text, " EC=", " ,");
        file.name = trimmed(text.substr(2, text.find(" PID: ") - 2));
        plan_.files.push_back(file);
    }

    void take_refusal(const std::string& text) {
        if (text.find("no update needed") != std::string::npos) {
            refuse(considered_.file, "its level " + considered_.to + " is not above the device's " +
                                         considered_.from);
        } else if (text.find("Version mismatch") != std::string::npos) {
            const unsigned product = number_behind(text, "PID: ", 16);
            const unsigned component = number_behind(text, "COMP: ", 10);
            const std::string digit = word_behind(text, "file=", ",");
            for (PlannedFile& file : plan_.files) {
                if (file.product == product && file.component == component &&
                    file.level.size() > 1 && file.level.substr(1, 1) == digit) {
                    refuse(file.name, "its version digit " + digit + " is not the device's " +
                                          word_behind(text, "device=", ")"));
                }
            }
        } else if (text.starts_with("PID: ") || text.starts_with("Processing ")) {
            const std::string key = text.starts_with("PID: ") ? "PID: " : ":";
            products_.insert(number_behind(text, key, 16));
        }
    }

    void refuse(const std::string& name, const std::string& reason) {
        for (PlannedFile& file : plan_.files) {
            if (file.name == name && file.not_used.empty()) {
                file.not_used = reason;
            }
        }
    }

    bool is_sent(const PlannedFile& file) const {
        return std::any_of(plan_.updates.begin(), plan_.updates.end(),
                           [&](const PlannedUpdate& update) { return update.file == file.name; });
    }

    void explain_unused() {
        for (std::size_t i = 0; i < plan_.files.size(); ++i) {
            PlannedFile& file = plan_.files[i];
            if (is_sent(file)) {
                file.not_used.clear();
            } else if (file.not_used.empty()) {
                file.not_used = reason_for(i);
            }
        }
    }

    std::string reason_for(std::size_t index) const {
        const PlannedFile& file = plan_.files[index];
        for (std::size_t i = 0; i < index; ++i) {
            const PlannedFile& earlier = plan_.files[i];
            if (earlier.product == file.product && earlier.component == file.component &&
                earlier.level.substr(0, 2) == file.level.substr(0, 2)) {
                return "an earlier file was first: " + earlier.name;
            }
        }
        return products_.contains(file.product) ? "no selected device has this component"
                                                : "no such device";
    }

    UpdatePlan plan_;
    PlannedUpdate considered_;
    std::set<unsigned> products_;
};

}  // namespace

UpdatePlan read_plan(const std::vector<RunLine>& lines) {
    return PlanReader().read(lines);
}

}  // namespace zelfsim
