/// \file
/// The messages of the flash interface's protocol: commands, status flags and answers.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

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

/// The fixed commands; their bytes stand in exchange.cpp.
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

/// The bytes of a command; `component` (0 to 15) matters to the two commands that name one.
CommandMessage flash_command(FlashCommand command, int component = 0);

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
