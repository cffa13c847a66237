// The verdicts over a list, a reset and the read of a component with a fault.
#include "journal.h"
#include "support/files.h"
#include "verdict_parts.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

namespace {

constexpr std::size_t header_size = 8;  // of a firmware file
constexpr int result_failed = 6;
constexpr int result_succeeded = 7;

std::string prefix_of_list_line(const std::string& device) {
    char text[32];
    snprintf(text, sizeof(text), "PID: %04x ", static_cast<unsigned int>(product_of(device)));
    return text;
}

std::vector<std::string> list_lines(const std::string& console, const std::string& device) {
    std::vector<std::string> found = lines_of(console);
    std::erase_if(found, [&](const std::string& line) {
        return !line.starts_with(prefix_of_list_line(device));
    });
    return found;
}

/// What a command that works on each device said of one.
enum class Said { nothing, success, failure };

Said said_of(const std::string& console, const std::string& device) {
    char begin[32];
    snprintf(begin, sizeof(begin), "Device PID:%04x ",
             static_cast<unsigned int>(product_of(device)));
    Said said = Said::nothing;
    for (const std::string& line : lines_of(console)) {
        if (line.starts_with(begin)) {
            said = line.find("successfully") != std::string::npos ? Said::success : Said::failure;
        }
    }
    return said;
}

bool has_reason(const Evidence& evidence) {
    return complains(evidence.run.log, evidence.sound.run.log);
}

/// The transfer that was struck. A status that another thread reads may stand in front of it.
Transfer struck_transfer(const Evidence& evidence) {
    if (!evidence.strike.has_struck) {
        return {};
    }
    const auto lines = evidence.run.record.all();
    const bool may_be_status = evidence.injection.event == "interrupt";
    const auto next =
        std::find_if(lines.begin() + static_cast<std::ptrdiff_t>(evidence.strike.at) + 1,
                     lines.end(), [&](const Transfer& line) {
                         return line.device == evidence.injection.device &&
                                (may_be_status || line.kind != "interrupt");
                     });
    return next != lines.end() ? *next : Transfer{};
}

/// The device drops at its reset, and so a reset command that could not be sent counts as one.
bool is_failure_expected(const Evidence& evidence) {
    if (evidence.run.log.find("Reset sent, write failure expected!") != std::string::npos) {
        return true;
    }
    // A few of its bytes have been sent.
    return struck_transfer(evidence).data == "04000040";
}

/// A data answer that is cut short or false, or is that of an earlier query: the program has
/// nothing to tell it by.
bool has_false_data(const Evidence& evidence) {
    const Transfer struck = struck_transfer(evidence);
    const bool is_data = struck.setup.starts_with("a1 01 03");
    const bool is_query = struck.data.starts_with("0600");
    return (is_data && struck.result > 0) ||
           (is_query && evidence.injection.family() == "garbage answer");
}

Violations judge_results(const Evidence& evidence) {
    Violations found;
    const Results results = read_results(evidence.run.results);
    for (const ResultRow& row : results.rows) {
        const Said said = said_of(evidence.run.console, device_of(row.product));
        const int code = result_code(row.text);
        if ((code == result_succeeded) != (said == Said::success) ||
            (code == result_failed) != (said == Said::failure)) {
            found.push_back("the result file says \"" + row.text + "\" of the " +
                            device_of(row.product));
        }
    }
    return found;
}

Violations judge_reset(const Evidence& evidence, const std::string& device, Said said) {
    Violations found;
    const bool was_reset = count_drops(evidence.run.record, device, "reset") > 0;
    const bool is_struck = evidence.is_struck(device);
    if (said == Said::success && !was_reset && !(is_struck && is_failure_expected(evidence))) {
        found.push_back("the " + device + " counts as reset and is not");
    }
    if (said != Said::success && was_reset) {
        found.push_back("the " + device + " was reset and does not count");
    }
    return found;
}

Violations judge_read(const Evidence& evidence, Said said) {
    Violations found;
    const auto data = evidence.place.read_data();
    if (said == Said::success && !has_false_data(evidence) &&
        (!data || data->substr(header_size) != evidence.sound.data->substr(header_size))) {
        found.emplace_back("the data read are not the component's");
    }
    // The header has the level that the device gave for its information.
    if (said == Said::success && data && evidence.strike.opening > opening::first_information &&
        data->substr(0, header_size) != evidence.sound.data->substr(0, header_size)) {
        found.emplace_back("the data read have another header");
    }
    if (said == Said::nothing && data) {
        found.emplace_back("data were read, and the outcome is not said");
    }
    return found;
}

}  // namespace

Violations judge_list(const Evidence& evidence) {
    Violations found;
    bool is_any_listed = false;
    for (const char* device : {"printer", "scanner", bystander}) {
        const auto lines = list_lines(evidence.run.console, device);
        is_any_listed = is_any_listed || !lines.empty();
        if (lines == list_lines(evidence.sound.run.console, device)) {
            continue;
        }
        if (!evidence.is_struck(device)) {
            found.push_back(std::string("the ") + device + " is not listed as without the fault");
        } else if (evidence.injection.has_debug_log() && !has_false_data(evidence) &&
                   !has_reason(evidence)) {
            found.push_back(std::string("the log does not say why the ") + device +
                            " is listed otherwise");
        }
    }
    if (evidence.run.end.exit_code != (is_any_listed ? exit_ok : exit_no_devices)) {
        found.push_back("exit code " + std::to_string(evidence.run.end.exit_code));
    }
    return found;
}

Violations judge_operation(const Evidence& evidence) {
    Violations found = judge_results(evidence);
    const bool is_reset = evidence.injection.command == "reset";
    int successes = 0;
    int failures = 0;
    bool may_be_left_out = false;
    for (const char* device : {"printer", "scanner", bystander}) {
        const Said said = said_of(evidence.run.console, device);
        successes += said == Said::success ? 1 : 0;
        failures += said == Said::failure ? 1 : 0;
        if (is_reset) {
            append(found, judge_reset(evidence, device, said));
        } else if (std::string_view(device) == "printer") {
            append(found, judge_read(evidence, said));
        } else if (said != Said::nothing) {
            found.push_back(std::string("the ") + device + " was read");
        }
        // A device that can't be opened ends the command, with success.
        may_be_left_out = may_be_left_out || evidence.is_struck(device);
        if (said == said_of(evidence.sound.run.console, device)) {
            continue;
        }
        if (!may_be_left_out) {
            found.push_back(std::string("the ") + device + " was not done as without the fault");
        } else if ((said == Said::failure || evidence.injection.has_debug_log()) &&
                   !has_reason(evidence)) {
            found.push_back(std::string("the log has no reason for the failure of the ") + device);
        }
    }
    const int code = evidence.run.end.exit_code;
    const bool is_nothing_done = successes + failures == 0;
    const int expected = failures > 0 ? exit_device_failed : exit_ok;
    if (code != expected && !(is_nothing_done && code == exit_no_devices)) {
        found.push_back("exit code " + std::to_string(code) + " and not " +
                        std::to_string(expected));
    }
    return found;
}
