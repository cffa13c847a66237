#include "zelfwtrace/message.h"

#include "firmware/firmware_file.h"
#include "zelfwtrace/escape.h"

#include <algorithm>
#include <iterator>

namespace {

AnswerView view(std::string_view report) {
    return {report.data(), report.size()};
}

SentMessage command_message(const CommandRow& row, std::string_view report) {
    SentMessage message;
    message.kind = SentMessage::Kind::command;
    message.command = &row;
    if (row.component_in != ComponentIn::nowhere) {
        const ComponentBits bits = component_bits(row.component_in);
        message.component = (view(report)[component_byte] & bits.mask) >> bits.shift;
        message.details = printed("component %d", *message.component);
    }
    return message;
}

bool is_image_data(std::string_view report) {
    const AnswerView bytes = view(report);
    const std::size_t tail =
        bytes[image_message::length_byte] == 0
            ? firmware_checksum_size
            : bytes[image_message::length_byte] + firmware_record_head_size - std::size_t{1};
    return bytes[image_message::operation_byte] == image_message::operation &&
           bytes[image_message::operation_byte + 1] == 0 &&
           report.size() == image_message::body_start + tail;
}

SentMessage image_data_message(std::string_view report) {
    const AnswerView bytes = view(report);
    const int length = bytes[image_message::length_byte];
    const std::size_t body = image_message::body_start;
    SentMessage message;
    if (length == 0) {
        message.kind = SentMessage::Kind::checksum;
        message.details = printed("%02x.%02x", bytes[body], bytes[body + 1]);
        return message;
    }
    message.kind = SentMessage::Kind::image_record;
    const int tag = bytes[body];
    const bool is_information = tag >> 4 == information_nibble;
    if (tag != file_information_tag) {
        message.component = is_information ? tag & 0x0F : tag >> 4;
        message.details = printed("component %d, ", *message.component);
    }
    message.details +=
        printed("%s %02x%02x%02x, %d byte%s", is_information ? "information" : "data", tag,
                bytes[body + 1], bytes[body + 2], length, length == 1 ? "" : "s");
    return message;
}

std::string level_words(const AnswerView& report) {
    const int current = report.word(ec_level_answer::current);
    const int previous = report.word(ec_level_answer::previous);
    return printed("EC level %02x.%02x build %02x, before %02x.%02x build %02x", current >> 8,
                   current & 0xFF, report[ec_level_answer::current_build], previous >> 8,
                   previous & 0xFF, report[ec_level_answer::previous_build]);
}

std::string device_words(const AnswerView& report) {
    return printed("device type %02x, ID %02x, command set %02x, features %02x",
                   report[device_information_answer::type], report[device_information_answer::id],
                   report[device_information_answer::command_set],
                   report[device_information_answer::features]);
}

template <typename Entry>
std::string list_words(const char* what, std::string_view report) {
    const std::size_t length = view(report)[component_list_answer::length];
    const std::size_t present = report.size() > component_list_answer::entries
                                    ? report.size() - component_list_answer::entries
                                    : 0;
    if (length % sizeof(Entry) != 0 || length > present) {
        return printed("%s of %zu bytes", what, length);
    }
    const std::size_t entries = length / sizeof(Entry);
    return printed("%s, %zu entr%s", what, entries, entries == 1 ? "y" : "ies");
}

std::string record_words(const AnswerView& report) {
    if (report[record_answer::record] == 0) {
        return "end of the records";
    }
    const bool is_last = (report[record_answer::flags] & record_answer::last_block) != 0;
    return printed("record of %d bytes%s", report[record_answer::record],
                   is_last ? ", last block" : "");
}

}  // namespace

std::string SentMessage::name() const {
    switch (kind) {
        case Kind::command:
            return command->name;
        case Kind::image_record:
            return "record";
        case Kind::checksum:
            return "checksum";
        case Kind::unknown:
            break;
    }
    return "unknown message";
}

SentMessage read_sent_message(std::string_view report) {
    const auto* row = std::find_if(std::begin(command_table), std::end(command_table),
                                   [report](const CommandRow& r) { return is_command(r, report); });
    if (row != std::end(command_table)) {
        return command_message(*row, report);
    }
    if (is_image_data(report)) {
        return image_data_message(report);
    }
    SentMessage message;
    message.details = printed("%zu bytes", report.size());
    return message;
}

std::string status_words(std::string_view report) {
    if (report.empty()) {
        return "of no bytes";
    }
    const AnswerView bytes = view(report);
    const std::uint8_t flags = bytes[0];
    std::string words;
    const auto add = [&words](const std::string& more) {
        words.append(words.empty() ? "" : ", ").append(more);
    };
    const auto has = [flags](std::uint8_t flag) { return (flags & flag) != 0; };
    if (has(status_flag::reject)) {
        add("rejected");
    }
    if (has(status_flag::operation_error)) {
        add("operation error");
    }
    if (has(status_flag::completed)) {
        add("completed");
    }
    if (has(status_flag::ec_level)) {
        add(level_words(bytes));
    }
    if (has(status_flag::device_information)) {
        add(device_words(bytes));
    }
    constexpr int known = status_flag::reject | status_flag::operation_error |
                          status_flag::completed | status_flag::ec_level |
                          status_flag::device_information;
    if (flags == 0 || (flags & ~known) != 0) {
        add(printed("flags %02x", flags));
    }
    return words;
}

std::string data_words(std::string_view report, const CommandRow* query) {
    const AnswerView bytes = view(report);
    if (query != nullptr) {
        switch (query->command) {
            case FlashCommand::component_list_query:
                return list_words<component_id>("component list", report);
            case FlashCommand::extended_component_list_query:
                return list_words<extended_component_id>("extended component list", report);
            case FlashCommand::component_version_query: {
                const int version = bytes.word(component_version_answer::version);
                return printed("component version %02x.%02x", version >> 8, version & 0xFF);
            }
            case FlashCommand::read_all_records:
                return record_words(bytes);
            default:
                break;
        }
    }
    return printed("%zu bytes", report.size());
}
