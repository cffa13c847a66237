/// \file
/// The blocks of a capture file in the pcapng format, with one interface.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// What a pcapng file begins with: its section, and the interface that all packets are from.
std::string pcapng_beginning(std::uint16_t link_type);

/// A packet at `time`, in milliseconds since the epoch, with comments in UTF-8; a longer one than
/// an option holds is cut.
std::string pcapng_packet(std::int64_t time, std::string_view packet,
                          const std::vector<std::string>& comments);
