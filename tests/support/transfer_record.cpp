#include "support/transfer_record.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace {

constexpr char set_report[] = "21 09 ";
constexpr char get_report[] = "a1 01 ";

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    return text;
}

Transfer parse(const std::string& line) {
    std::vector<std::string> fields;
    std::istringstream stream(line);
    for (std::string field; std::getline(stream, field, '\t');) {
        fields.push_back(field);
    }
    if (fields.size() != 7) {
        throw std::runtime_error("not a line of the transfer record: " + line);
    }
    return {.time = std::stod(fields[0]),
            .device = fields[1],
            .address = std::stoi(fields[2]),
            .kind = fields[3],
            .setup = fields[3] == "control" ? lower(fields[4]) : fields[4],
            .data = fields[5] == "-" ? "" : fields[5],
            .result = std::stoi(fields[6])};
}

}  // namespace

TransferRecord::TransferRecord(const std::filesystem::path& path) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        // A line without its end is still being written: a line over two pages comes in two steps.
        if (!file.eof()) {
            transfers_.push_back(parse(line));
        }
    }
}

std::vector<Transfer> TransferRecord::of_kind(const std::string& device,
                                              const std::string& kind) const {
    std::vector<Transfer> found;
    std::copy_if(transfers_.begin(), transfers_.end(), std::back_inserter(found),
                 [&](const Transfer& one) { return one.device == device && one.kind == kind; });
    return found;
}

std::vector<Transfer> TransferRecord::class_requests(const std::string& device) const {
    std::vector<Transfer> found = of_kind(device, "control");
    std::erase_if(found, [](const Transfer& one) {
        return !one.setup.starts_with(set_report) && !one.setup.starts_with(get_report);
    });
    return found;
}

std::vector<std::string> TransferRecord::commands(const std::string& device) const {
    std::vector<std::string> messages;
    for (const Transfer& one : class_requests(device)) {
        if (one.setup.starts_with(set_report)) {
            messages.push_back(one.data);
        }
    }
    return messages;
}
