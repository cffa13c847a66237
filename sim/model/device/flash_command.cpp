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

constexpr std::array<FixedMessage, 7> kFixed{{
    {CommandKind::status_request, 4, {0x04, 0x00, 0x00, 0x20}},
    {CommandKind::reset, 4, {0x04, 0x00, 0x00, 0x40}},
    {CommandKind::level_or_stop, 4, {0x02, 0x00, 0x00, 0x80}},
    {CommandKind::erase, 4, {0x04, 0x00, 0x01, 0x00}},
    {CommandKind::device_info, 5, {0x03, 0x00, 0x00, 0x00, 0x01}},
    {CommandKind::component_list, 8, {0x06, 0x00, 0x20, 0x00, 0xFF, 0xFF, 0x00, 0x01}},
    {CommandKind::extended_list, 8, {0x06, 0x00, 0x20, 0x00, 0xFF, 0xFF, 0x00, 0x02}},
}};

constexpr std::array<std::uint8_t, 5> kVersionQuery{0x06, 0x00, 0x20, 0x00, 0x02};
constexpr std::array<std::uint8_t, 5> kReadRecords{0x06, 0x00, 0x21, 0x00, 0xFF};
constexpr std::size_t kQueryLength = 8;

constexpr std::size_t kHead = 5;        // count, operation, record length
constexpr std::size_t kRecordHead = 3;  // tag and two value bytes
constexpr std::size_t kChecksumLength = 7;

template <std::size_t size>
bool begins(ByteView message, const std::array<std::uint8_t, size>& bytes) {
    return message.size() >= size && std::equal(bytes.begin(), bytes.end(), message.begin());
}

bool parse_fixed(ByteView message, Command& command) {
    for (const FixedMessage& fixed : kFixed) {
        if (message.size() >= fixed.length &&
            std::equal(message.begin(), message.begin() + static_cast<std::ptrdiff_t>(fixed.length),
                       fixed.bytes.begin())) {
            command.kind = fixed.kind;
            return true;
        }
    }
    return false;
}

bool parse_query(ByteView message, Command& command) {
    if (message.size() < kQueryLength) {
        return false;
    }
    if (begins(message, kVersionQuery) && (message[5] & 0xF0) == 0xF0 && message[6] == 0 &&
        message[7] == 1) {
        command.kind = CommandKind::component_version;
        command.component = message[5] & 0x0F;
        return true;
    }
    if (begins(message, kReadRecords) && (message[5] & 0x0F) == 0 && message[6] == 0 &&
        message[7] == 0) {
        command.kind = CommandKind::read_records;
        command.component = message[5] >> 4;
        return true;
    }
    return false;
}

bool parse_image_data(ByteView message, Command& command) {
    if (message.size() < kHead || message[2] != 0x02 || message[3] != 0x00) {
        return false;
    }
    const std::size_t count = message[0] + message[1] * 256U;
    const std::size_t payload = message[4];
    if (payload == 0) {
        if (count != kHead || message.size() < kChecksumLength) {
            return false;
        }
        command.kind = CommandKind::checksum;
        command.checksum = static_cast<std::uint16_t>(message[5] * 256 + message[6]);
        return true;
    }
    const std::size_t length = payload + kRecordHead;
    if (count != length + kRecordHead || message.size() < kHead + length) {
        return false;
    }
    command.kind = CommandKind::record;
    command.record = message.subspan(kHead, length);
    return true;
}

}  // namespace

Command parse_command(ByteView message) {
    Command command;
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
