#include "strike.h"

#include <algorithm>

namespace {

constexpr char erase[] = "04000100";

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
            strike.at = i;
            // The line of an opening that is struck follows.
            strike.opening = opens + (injection.event == "open" ? 1 : 0);
        } else if (lines[i].kind == "drop" && lines[i].setup.starts_with("unplug")) {
            strike.opening = std::max(strike.opening, opens);
            strike.leaves_device_gone = lines[i].setup == "unplug";
        }
        opens += lines[i].kind == "open" ? 1 : 0;
    }
    return strike;
}

bool carries(const Transfer& transfer, const Target& target) {
    if (transfer.device != target.device || transfer.kind != "control") {
        return false;
    }
    return std::find(target.messages.begin(), target.messages.end(), transfer.data) !=
           target.messages.end();
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

int count_erases(const TransferRecord& record, const std::string& device) {
    const auto commands = record.commands(device);
    return static_cast<int>(std::count(commands.begin(), commands.end(), erase));
}

int count_drops(const TransferRecord& record, const std::string& device,
                const std::string& reason) {
    const auto drops = record.of_kind(device, "drop");
    return static_cast<int>(std::count_if(
        drops.begin(), drops.end(), [&](const Transfer& one) { return one.setup == reason; }));
}
