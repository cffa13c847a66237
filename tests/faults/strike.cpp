#include "strike.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr char command_setup[] = "21 09 02";

/// The line in which the report that nobody asked for is read; the number of lines for none.
std::size_t find_unasked(const std::vector<Transfer>& lines, std::size_t fault,
                         const std::string& device) {
    constexpr char mark[] = "a5";
    const auto found = std::find_if(lines.begin() + static_cast<std::ptrdiff_t>(fault), lines.end(),
                                    [&](const Transfer& line) {
                                        return line.device == device && line.kind == "interrupt" &&
                                               line.result == 0 && line.data.ends_with(mark);
                                    });
    return static_cast<std::size_t>(found - lines.begin());
}

/// Whether the command after the one that was struck was sent without an answer in between, and an
/// answer came after it.
bool met_next_command(const std::vector<Transfer>& lines, std::size_t fault,
                      const std::string& device) {
    int commands = 0;
    for (std::size_t i = fault; i < lines.size(); ++i) {
        const Transfer& line = lines[i];
        if (line.device != device) {
            continue;
        }
        if (line.kind == "control" && line.setup.starts_with(command_setup)) {
            ++commands;
        } else if (line.kind == "interrupt" && line.result == 0) {
            return commands >= 2;
        }
    }
    return false;
}

}  // namespace

Strike find_strike(const TransferRecord& record, const Injection& injection) {
    Strike strike;
    const auto lines = record.all();
    int opens = 0;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].device != injection.device) {
            continue;
        }
        if (lines[i].kind == "fault") {
            strike.has_struck = true;
            strike.fault_line = strike.at = i;
            // The line of an opening that is struck follows.
            strike.opening = opens + (injection.event == "open" ? 1 : 0);
        } else if (lines[i].kind == "drop" && lines[i].setup.starts_with("unplug")) {
            strike.opening = std::max(strike.opening, opens);
            strike.leaves_device_gone = lines[i].setup == "unplug";
        }
        opens += lines[i].kind == "open" ? 1 : 0;
    }
    if (strike.has_struck && injection.belongs_to(Family::unasked)) {
        const std::size_t read = find_unasked(lines, strike.at, injection.device);
        strike.has_struck = read < lines.size();
        strike.at = std::min(read, lines.size() - 1);
        strike.opening = static_cast<int>(
            std::count_if(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(strike.at),
                          [&](const Transfer& line) {
                              return line.device == injection.device && line.kind == "open";
                          }));
    }
    strike.meets_next = injection.belongs_to(Family::late) && strike.has_struck &&
                        met_next_command(lines, strike.at, injection.device);
    return strike;
}

std::optional<int> gap_behind_fault(const TransferRecord& record, const std::string& device) {
    bool has_struck = false;
    std::optional<double> sent;
    for (const Transfer& line : record.all()) {
        if (line.device != device) {
            continue;
        }
        has_struck |= line.kind == "fault";
        if (!has_struck || line.kind != "control" || !line.setup.starts_with(command_setup)) {
            continue;
        }
        if (sent) {
            return static_cast<int>(std::ceil(line.time - *sent));
        }
        sent = line.time;
    }
    return std::nullopt;
}

bool carries(const Transfer& transfer, const Target& target) {
    if (transfer.device != target.device || transfer.kind != "control") {
        return false;
    }
    return std::find(target.messages.begin(), target.messages.end(), transfer.data) !=
           target.messages.end();
}

bool is_checksum(const std::string& message) {
    return std::any_of(targets().begin(), targets().end(),
                       [&](const Target& target) { return target.messages.back() == message; });
}

bool has_sent_image(const TransferRecord& record, const Target& target) {
    const auto lines = record.all();
    return std::any_of(lines.begin(), lines.end(),
                       [&](const Transfer& line) { return carries(line, target); });
}

std::size_t find_checksum(const TransferRecord& record, const Target& target) {
    const auto lines = record.all();
    const std::string message = target.messages.back();
    const auto found = std::find_if(lines.begin(), lines.end(), [&](const Transfer& line) {
        return line.device == target.device && line.kind == "control" && line.data == message;
    });
    return static_cast<std::size_t>(found - lines.begin());
}

bool struck_checksum(const TransferRecord& record, const Strike& strike, const Target& target) {
    const auto lines = record.all();
    const auto next =
        std::find_if(lines.begin() + static_cast<std::ptrdiff_t>(strike.at) + 1, lines.end(),
                     [&](const Transfer& line) {
                         return line.device == target.device && line.kind != "interrupt";
                     });
    const auto checksum = find_checksum(record, target);
    return checksum < lines.size() && static_cast<std::size_t>(next - lines.begin()) == checksum;
}

bool has_visible_surplus(const TransferRecord& record, const Target& target, double margin) {
    const auto lines = record.all();
    const std::size_t checksum = find_checksum(record, target);
    int messages = 0;
    bool is_visible = false;
    std::vector<double> reports;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const Transfer& line = lines[i];
        if (line.device != target.device) {
            continue;
        }
        if (line.kind == "interrupt" && line.result == 0) {
            reports.push_back(line.time);
        } else if (line.kind == "control" && line.data == erase_command) {
            messages = 1;
            is_visible = false;
            reports.clear();
        } else if (line.kind == "control" && line.setup.starts_with(command_setup)) {
            const auto seen = std::count_if(reports.begin(), reports.end(),
                                            [&](double time) { return time + margin < line.time; });
            is_visible = is_visible || seen > messages;
            ++messages;
            if (i > checksum) {
                break;
            }
        }
    }
    return is_visible;
}

int count_erases(const TransferRecord& record, const std::string& device) {
    const auto commands = record.commands(device);
    return static_cast<int>(std::count(commands.begin(), commands.end(), erase_command));
}

int count_drops(const TransferRecord& record, const std::string& device,
                const std::string& reason) {
    const auto drops = record.of_kind(device, "drop");
    return static_cast<int>(std::count_if(
        drops.begin(), drops.end(), [&](const Transfer& one) { return one.setup == reason; }));
}
