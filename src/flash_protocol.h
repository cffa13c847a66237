/// \file
/// The bytes of the flash interface's protocol: usages, commands and their names, image data
/// messages, status flags and the layouts of answers. Whoever speaks or reads the protocol takes
/// them from here.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string_view>

/// Usages of the flash interface's reports.
namespace flash_usage {
constexpr unsigned short page = 0xFF45;
constexpr unsigned short interface = 0xA000;      ///< top collection: marks a flash interface
constexpr unsigned short command = 0xA001;        ///< output report
constexpr unsigned short status = 0xA002;         ///< input report
constexpr unsigned short data = 0xA003;           ///< feature report
constexpr unsigned short fallback_data = 0x1603;  ///< feature report of older devices
}  // namespace flash_usage

/// Vendors whose flash interfaces are updated without being asked for.
constexpr unsigned short flash_vendors[] = {0x7A01, 0x7A02, 0x7A03};

/// Flags in byte 0 of a status report.
namespace status_flag {
constexpr std::uint8_t reject = 0x80;
constexpr std::uint8_t operation_error = 0x40;
constexpr std::uint8_t device_information = 0x08;
constexpr std::uint8_t ec_level = 0x04;
constexpr std::uint8_t completed = 0x01;
}  // namespace status_flag

inline bool is_bad_status(std::uint8_t status) {
    return (status & (status_flag::reject | status_flag::operation_error)) != 0;
}

/// The fixed commands.
enum class FlashCommand {
    status_request,
    reset,
    stop,
    ec_level_query,
    device_information_query,
    erase,
    component_version_query,
    component_list_query,
    extended_component_list_query,
    read_all_records,
};

struct CommandMessage {
    std::array<char, 8> bytes;
    int length;
};

/// Where a command's sixth byte names a component.
enum class ComponentIn { nowhere, low_nibble, high_nibble };

struct CommandRow {
    FlashCommand command;
    CommandMessage message;
    ComponentIn component_in;
    const char* name;
};

/// Counts are little-endian. The stop command and the EC level query are the same bytes: the
/// device tells them apart by what it is doing.
constexpr CommandRow command_table[] = {
    {FlashCommand::status_request, {{0x04, 0, 0, 0x20}, 4}, ComponentIn::nowhere, "status request"},
    {FlashCommand::reset, {{0x04, 0, 0, 0x40}, 4}, ComponentIn::nowhere, "reset"},
    {FlashCommand::stop, {{0x02, 0, 0, '\x80'}, 4}, ComponentIn::nowhere, "stop"},
    {FlashCommand::ec_level_query,
     {{0x02, 0, 0, '\x80'}, 4},
     ComponentIn::nowhere,
     "EC level query"},
    {FlashCommand::device_information_query,
     {{0x03, 0, 0, 0, 0x01}, 5},
     ComponentIn::nowhere,
     "device information query"},
    {FlashCommand::erase, {{0x04, 0, 0x01, 0}, 4}, ComponentIn::nowhere, "erase"},
    {FlashCommand::component_version_query,
     {{0x06, 0, 0x20, 0, 0x02, '\xF0', 0, 0x01}, 8},
     ComponentIn::low_nibble,
     "component version query"},
    {FlashCommand::component_list_query,
     {{0x06, 0, 0x20, 0, '\xFF', '\xFF', 0, 0x01}, 8},
     ComponentIn::nowhere,
     "component list query"},
    {FlashCommand::extended_component_list_query,
     {{0x06, 0, 0x20, 0, '\xFF', '\xFF', 0, 0x02}, 8},
     ComponentIn::nowhere,
     "extended component list query"},
    {FlashCommand::read_all_records,
     {{0x06, 0, 0x21, 0, '\xFF', 0, 0, 0}, 8},
     ComponentIn::high_nibble,
     "read all records"},
};
/// The byte of a command that names a component.
constexpr std::size_t component_byte = 5;

/// The bits of that byte which name the component, and how far they are from its low end.
struct ComponentBits {
    std::uint8_t mask;
    int shift;
};

constexpr ComponentBits component_bits(ComponentIn where) {
    switch (where) {
        case ComponentIn::low_nibble:
            return {.mask = 0x0F, .shift = 0};
        case ComponentIn::high_nibble:
            return {.mask = 0xF0, .shift = 4};
        case ComponentIn::nowhere:
            break;
    }
    return {.mask = 0, .shift = 0};
}

/// The row of a command.
constexpr const CommandRow& command_row(FlashCommand command) {
    return *std::find_if(std::begin(command_table), std::end(command_table),
                         [command](const CommandRow& row) { return row.command == command; });
}

/// The bytes of a command; `component` (0 to 15) matters to the commands that name one.
constexpr CommandMessage flash_command(FlashCommand command, int component = 0) {
    const CommandRow& row = command_row(command);
    const ComponentBits bits = component_bits(row.component_in);
    CommandMessage message = row.message;
    message.bytes[component_byte] = static_cast<char>((message.bytes[component_byte] & ~bits.mask) |
                                                      ((component << bits.shift) & bits.mask));
    return message;
}

/// Whether a report holds the command of `row`, for whatever component.
constexpr bool is_command(const CommandRow& row, std::string_view report) {
    if (report.size() != static_cast<std::size_t>(row.message.length)) {
        return false;
    }
    for (std::size_t i = 0; i < report.size(); ++i) {
        const int ignored = i == component_byte ? component_bits(row.component_in).mask : 0;
        if (((report[i] ^ row.message.bytes[i]) & 0xFF & ~ignored) != 0) {
            return false;
        }
    }
    return true;
}

/// An image data message: a count of the bytes that follow byte 1, the operation, the record's
/// length byte, and the bytes behind that in the firmware file. The checksum is such a message
/// with a length byte of 0.
namespace image_message {
constexpr std::size_t operation_byte = 2;
constexpr std::uint8_t operation = 0x02;
constexpr std::size_t length_byte = 4;
constexpr std::size_t body_start = 5;  ///< tag, 16-bit value (high byte first), payload
constexpr std::size_t first_listed_component = 8;
constexpr int count_beside_payload = 6;
constexpr std::uint8_t checksum_count = 5;
}  // namespace image_message

/// Where the answers hold their data. Words have the low byte first. The first two are status
/// reports, the others are fetched as feature reports.
namespace ec_level_answer {
constexpr std::size_t current = 1, previous = 3, current_build = 5, previous_build = 6;
}
namespace device_information_answer {
constexpr std::size_t type = 1, id = 2, command_set = 3, features = 4;
}
namespace component_version_answer {
constexpr std::size_t version = 6;
}
namespace component_list_answer {
constexpr std::size_t length = 2, entries = 6;
}

/// Entry of a plain component list, as the device sends it.
struct component_id {
    std::uint8_t component;
    std::uint8_t revision;
    std::uint8_t generation;
    std::uint8_t flags;
};
static_assert(sizeof(component_id) == 4);

/// Entry of an extended component list, as the device sends it.
struct extended_component_id {
    std::uint8_t component;
    std::uint8_t revision;
    std::uint8_t generation;
    std::uint8_t flags;
    std::uint8_t build_level;
};
static_assert(sizeof(extended_component_id) == 5);

/// The answer that holds one record of a component, or the end of them.
namespace record_answer {
constexpr std::size_t size = 261;
constexpr std::size_t flags = 0;
constexpr std::uint8_t last_block = 0x01;
constexpr std::size_t record = 2;
/// Bytes of a record beside its payload; of the end, a length byte of 0 and the checksum.
constexpr std::size_t bytes_beside_payload = 4;
constexpr std::size_t end_size = 3;
}  // namespace record_answer

/// Checked access to an answer of a device.
class AnswerView {
  public:
    AnswerView(const char* bytes, std::size_t size) : bytes_(bytes), size_(size) {}

    /// The byte at `offset`, 0 behind the end.
    std::uint8_t operator[](std::size_t offset) const {
        return offset < size_ ? static_cast<std::uint8_t>(bytes_[offset]) : std::uint8_t{0};
    }
    /// Two bytes, low byte first.
    int word(std::size_t offset) const { return (*this)[offset + 1] * 256 + (*this)[offset]; }

  private:
    const char* bytes_;
    std::size_t size_;
};
