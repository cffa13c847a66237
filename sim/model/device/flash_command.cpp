#include "model/device/flash_command.h"

#include <algorithm>
#include <array>

namespace zelfsim {

namespace {

struct FixedMessage {
    CommandKind kind;
    std::size_t length;
    std::array<std::uint8_t, 8> bytes;
};

constexpr std::array<FixedMessage, 7> fixed_messages{{
    {CommandKind::status_request, 4, {0x04, 0x00, 0x00, 0x20}},
    {CommandKind::reset, 4, {0x04, 0x00, 0x00, 0x40}},
    {CommandKind::level_or_stop, 4, {0x02, 0x00, 0x00, 0x80}},
    {CommandKind::erase, 4, {0x04, 0x00, 0x01, 0x00}},
    {CommandKind::device_info, 5, {0x03, 0x00, 0x00, 0x00, 0x01}},
    {CommandKind::component_list, 8, {0x06, 0x00, 0x20, 0x00, 0xFF, 0xFF, 0x00, 0x01}},
    {CommandKind::extended_list, 8, {0x06, 0x00, 0x20, 0x00, 0xFF, 0xFF, 0x00, 0x02}},
}};

constexpr std::array<std::uint8_t, 5> version_query{0x06, 0x00, 0x20, 0x00, 0x02};
constexpr std::array<std::uint8_t, 5> read_records{0x06, 0x00, 0x21, 0x00, 0xFF};
constexpr std::size_t query_length = 8;

constexpr std::size_t message_head = 5;  // count, operation, record length
constexpr std::size_t checksum_length = 7;

template <std::size_t size>
bool begins(ByteView message, const std::array<std::uint8_t, size>& bytes) {
    return message.size() >= size && std::equal(bytes.begin(), bytes.end(), message.begin());
}

bool parse_fixed(ByteView message, FlashCommand& command) {
    for (const FixedMessage& fixed : fixed_messages) {
        if (message.size() >= fixed.length &&
            std::equal(message.begin(), message.begin() + static_cast<std::ptrdiff_t>(fixed.length),
                       fixed.bytes.begin())) {
            command.kind = fixed.kind;
            return true;
        }
    }
    return false;
}

bool parse_query(ByteView message, FlashCommand& command) {
    if (message.size() < query_length) {
        return false;
    }
    if (begins(message, version_query) && (message[5] & 0xF0) == 0xF0 && message[6] == 0 &&
        message[7] == 1) {
        command.kind = CommandKind::component_version;
        command.component = message[5] & 0x0F;
        return true;
    }
    if (begins(message, read_records) && (message[5] & 0x0F) == 0 && message[6] == 0 &&
        message[7] == 0) {
        command.kind = CommandKind::read_records;
        command.component = message[5] >> 4;
        return true;
    }
    return false;
}

bool parse_image_data(ByteView message, FlashCommand& command) {
    if (message.size() < message_head || message[2] != 0x02 || message[3] != 0x00) {
        return false;
    }
    const std::size_t count = message[0] + message[1] * 256U;
    const std::size_t payload = message[4];
    if (payload == 0) {
        if (count != message_head || message.size() < checksum_length) {
            return false;
        }
        command.kind = CommandKind::checksum;
        command.checksum = static_cast<std::uint16_t>(message[5] * 256 + message[6]);
        return true;
    }
    const std::size_t length = payload + record_head;
    if (count != length + record_head || message.size() < message_head + length) {
        return false;
    }
    command.kind = CommandKind::record;
    command.record = message.subspan(message_head, length);
    return true;
}

}  // namespace

FlashCommand parse_command(ByteView message) {
    FlashCommand command;
    if (!parse_fixed(message, command) && !parse_query(message, command)) {
        parse_image_data(message, command);
    }
    return command;
}

FaultEvent command_event(CommandKind kind, bool stoppable) {
    switch (kind) {
        case CommandKind::status_request:
            return FaultEvent::status_request;
        case CommandKind::reset:
            return FaultEvent::reset;
        case CommandKind::level_or_stop:
            return stoppable ? FaultEvent::stop : FaultEvent::ec_level;
        case CommandKind::device_info:
            return FaultEvent::device_info;
        case CommandKind::erase:
            return FaultEvent::erase;
        case CommandKind::record:
            return FaultEvent::record;
        case CommandKind::checksum:
            return FaultEvent::checksum;
        case CommandKind::component_version:
            return FaultEvent::component_version;
        case CommandKind::component_list:
            return FaultEvent::component_list;
        case CommandKind::extended_list:
            return FaultEvent::extended_list;
        case CommandKind::read_records:
            return FaultEvent::read_records;
        case CommandKind::unknown:
            break;
    }
    return FaultEvent::command;
}

}  // namespace zelfsim
