// The listing of a firmware file (-D).
#include "firmware/firmware_display.h"
#include "firmware/firmware_file.h"
#include "support/check.h"
#include "support/log_text.h"
#include "support/scratch_directory.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

namespace {

using Content = std::span<const uint8_t>;

/// The line of the record at `offset`, of which `body` bytes follow the length byte.
std::string record_line(int number, Content content, std::size_t offset, std::size_t body) {
    const auto byte_at = [&](std::size_t i) {
        return static_cast<unsigned int>(i <= body ? content[offset + i] : 0);
    };
    char part[64];
    std::snprintf(part, sizeof part, "%03d:%-3d(R%06x) - ", number, static_cast<int>(body),
                  byte_at(1) << 16 | byte_at(2) << 8 | byte_at(3));
    std::string line = part;
    for (std::size_t i = 0; i <= body; ++i) {
        if (i != 0 && i % 25 == 0) {
            line += "\n                   ";
        }
        std::snprintf(part, sizeof part, "%02x.", byte_at(i));
        line += part;
    }
    return line + "\n";
}

/// Whether the listing goes as far as the records: the header has a product ID and a level.
bool has_header(Content content) {
    const auto number_at = [&](std::size_t offset) {
        const std::string text(content.begin() + static_cast<std::ptrdiff_t>(offset),
                               content.begin() + static_cast<std::ptrdiff_t>(offset) + 4);
        return static_cast<int>(std::strtoul(text.c_str(), nullptr, 16));
    };
    return content.size() >= firmware_header_size && number_at(0) >= 1 && number_at(4) >= 1;
}

void check_listing(const std::string& listing, Content content) {
    check(listing.starts_with("ProductID:  "), "the listing starts with the product ID");
    check((listing.find("Flash Data:\n") != std::string::npos) == has_header(content),
          "records are listed when the header is good");
    if (!has_header(content)) {
        return;
    }
    std::size_t position = 0;
    std::size_t offset = firmware_header_size;
    for (int number = 0; offset < content.size() && content[offset] != 0; ++number) {
        const std::size_t body =
            std::min<std::size_t>(content[offset] + 3U, content.size() - offset - 1);
        const std::string line = record_line(number, content, offset, body);
        position = listing.find(line, position);
        check(position != std::string::npos, "each record's line is there, in the file's order");
        position += line.size();
        offset += 1 + body;
    }
    const bool has_checksum = offset + firmware_checksum_size < content.size();
    check(!has_checksum || listing.find("Checksum -         ", position) != std::string::npos,
          "the checksum closes the listing");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const Content content(data, size);
    const std::string path = write_scratch_file("image.dat", content);
    const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "rb"), std::fclose);
    const LogText log(1);
    display_firmware_stream(file.get());
    check_listing(log.text(), content);
    return 0;
}
