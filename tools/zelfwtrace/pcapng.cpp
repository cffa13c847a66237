#include "zelfwtrace/pcapng.h"

namespace {

constexpr std::uint32_t section_header = 0x0A0D0D0A;
constexpr std::uint32_t interface_description = 1;
constexpr std::uint32_t enhanced_packet = 6;
constexpr std::uint32_t byte_order_magic = 0x1A2B3C4D;
constexpr std::uint16_t major_version = 1;
constexpr std::uint16_t minor_version = 0;
constexpr std::uint64_t unknown_length = ~std::uint64_t{0};
constexpr std::uint32_t no_snapshot_limit = 0;

constexpr std::uint16_t end_of_options = 0;
constexpr std::uint16_t comment_option = 1;
constexpr std::size_t longest_option = 0xFFFF;

constexpr std::size_t alignment = 4;
/// Type, length in front, length at the end.
constexpr std::size_t frame_of_a_block = 12;
/// An interface that names no resolution counts microseconds.
constexpr std::uint64_t microseconds_of_a_millisecond = 1000;

/// Low byte first, as the byte-order magic of the section says.
template <typename Number>
std::string little_endian(Number value) {
    std::string bytes;
    for (std::size_t i = 0; i < sizeof(value); ++i) {
        bytes += static_cast<char>(static_cast<std::uint64_t>(value) >> (8 * i) & 0xFF);
    }
    return bytes;
}

std::string padded(std::string_view bytes) {
    std::string all(bytes);
    all.resize((bytes.size() + alignment - 1) / alignment * alignment);
    return all;
}

std::string block(std::uint32_t type, const std::string& body) {
    const auto length = static_cast<std::uint32_t>(body.size() + frame_of_a_block);
    return little_endian(type) + little_endian(length) + body + little_endian(length);
}

/// As much of `text` as an option holds, without the first bytes of a character alone at the end.
std::string_view fitting(std::string_view text) {
    if (text.size() <= longest_option) {
        return text;
    }
    std::size_t size = longest_option;
    while (size > 0 && (static_cast<unsigned char>(text[size]) & 0xC0) == 0x80) {
        --size;
    }
    return text.substr(0, size);
}

std::string option(std::uint16_t code, std::string_view value) {
    return little_endian(code) + little_endian(static_cast<std::uint16_t>(value.size())) +
           padded(value);
}

}  // namespace

std::string pcapng_beginning(std::uint16_t link_type) {
    constexpr std::uint16_t reserved = 0;
    return block(section_header, little_endian(byte_order_magic) + little_endian(major_version) +
                                     little_endian(minor_version) + little_endian(unknown_length)) +
           block(interface_description, little_endian(link_type) + little_endian(reserved) +
                                            little_endian(no_snapshot_limit));
}

std::string pcapng_packet(std::int64_t time, std::string_view packet,
                          const std::vector<std::string>& comments) {
    constexpr std::uint32_t only_interface = 0;
    const std::uint64_t stamp = static_cast<std::uint64_t>(time) * microseconds_of_a_millisecond;
    const auto length = static_cast<std::uint32_t>(packet.size());
    std::string body = little_endian(only_interface) +
                       little_endian(static_cast<std::uint32_t>(stamp >> 32)) +
                       little_endian(static_cast<std::uint32_t>(stamp)) + little_endian(length) +
                       little_endian(length) + padded(packet);
    for (const std::string& comment : comments) {
        body += option(comment_option, fitting(comment));
    }
    if (!comments.empty()) {
        body += option(end_of_options, "");
    }
    return block(enhanced_packet, body);
}
