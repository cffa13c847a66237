#include "timed_faults.h"

#include "strike.h"
#include "workplace.h"

#include <algorithm>
#include <string>

namespace {

constexpr char probe[] = "0300000001";
/// A gap without any transfer can be as long as a restart.
constexpr int longest_gap = 400;
/// A report that comes so long after the next message can still be taken for its answer.
constexpr int longest_behind = 15;
constexpr int draws_before_checksum = 8;

struct SentCommand {
    int number = 0;  ///< among the device's commands, from 1
    std::string message;
    int gap = longest_gap;  ///< milliseconds until the next command
    bool is_last_of_opening = true;
    bool is_first_of_opening = true;
};

std::vector<SentCommand> sent_commands(const TransferRecord& record, const std::string& device) {
    std::vector<SentCommand> sent;
    double last_time = 0;
    bool is_first = true;
    for (const Transfer& line : record.all()) {
        if (line.device != device) {
            continue;
        }
        if (line.kind == "open") {
            is_first = true;
        } else if (line.kind == "control" && line.setup.starts_with("21 09 02")) {
            if (!sent.empty()) {
                sent.back().is_last_of_opening = is_first;
                sent.back().gap =
                    std::clamp(static_cast<int>(line.time - last_time), 1, longest_gap);
            }
            sent.push_back({.number = static_cast<int>(sent.size()) + 1,
                            .message = line.data,
                            .is_first_of_opening = is_first});
            last_time = line.time;
            is_first = false;
        }
    }
    return sent;
}

bool is_of_image(const std::string& message) {
    return message == erase_command || (message.size() > 8 && message.substr(4, 4) == "0200");
}

/// How long the program waits for the answer before it goes on: whole polls of 15 ms.
int patience_for(const SentCommand& command) {
    constexpr int poll = 15;
    if (command.message == probe && command.is_first_of_opening) {
        return command.gap;  // nobody waits for it
    }
    return (is_of_image(command.message) ? other_timeouts : information_timeout) / poll * poll;
}

Injection timed(const Injection& place, const SentCommand& command, const char* kind, int delay) {
    Injection injection = place;
    injection.event = "command";
    injection.number = command.number;
    injection.kind = find_fault_kind(kind);
    injection.milliseconds = delay;
    return injection;
}

int draw(std::mt19937& random, int lowest, int highest) {
    return lowest + static_cast<int>(random() % static_cast<unsigned>(highest - lowest + 1));
}

}  // namespace

std::vector<Injection> late_answers(const TransferRecord& record, const Injection& place,
                                    std::mt19937& random) {
    std::vector<Injection> all;
    bool is_main_image = false;
    bool had_image = false;
    for (const SentCommand& command : sent_commands(record, place.device)) {
        if (command.message == erase_command) {
            // After a failed main image the device is reset, and its answers are lost.
            is_main_image = !had_image;
            had_image = true;
        }
        if (command.is_last_of_opening || (is_main_image && is_of_image(command.message))) {
            continue;
        }
        const int patience = patience_for(command);
        for (const auto& [lowest, highest] : {std::pair(1, 40), {40, 120}, {120, 400}}) {
            all.push_back(
                timed(place, command, "meets-next", patience + draw(random, lowest, highest)));
        }
    }
    return all;
}

std::vector<Injection> unasked_reports(const TransferRecord& record, const Injection& place,
                                       std::mt19937& random) {
    std::vector<Injection> all;
    const auto sent = sent_commands(record, place.device);
    for (std::size_t i = 0; i < sent.size(); ++i) {
        const SentCommand& command = sent[i];
        if (command.is_last_of_opening) {
            continue;
        }
        // What stands for the answer to the checksum decides over the image.
        const int draws = is_checksum(sent[i + 1].message) ? draws_before_checksum : 1;
        for (int round = 0; round < draws; ++round) {
            const int behind = command.gap + longest_behind;
            for (const char* kind :
                 {"unasked", "unasked-level", "unasked-reject", "unasked-error"}) {
                all.push_back(timed(place, command, kind, draw(random, 0, behind)));
            }
            all.push_back(
                timed(place, command, "unasked-first", draw(random, command.gap, behind)));
        }
    }
    return all;
}
