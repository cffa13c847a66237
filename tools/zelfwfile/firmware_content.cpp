#include "zelfwfile/firmware_content.h"

#include "common/image_checksum.h"
#include "common/printed.h"
#include "journal/file_handle.h"

#include <algorithm>
#include <span>
#include <stdexcept>

using zelf::printed;

namespace {

constexpr std::size_t largest_file = std::size_t{64} << 20U;

zelf::Bytes read_whole(FILE* stream, const std::string& path) {
    zelf::Bytes bytes;
    std::uint8_t buffer[4096];
    for (std::size_t size = 0; (size = fread(buffer, 1, sizeof buffer, stream)) > 0;) {
        bytes.insert(bytes.end(), buffer, buffer + size);
        if (bytes.size() > largest_file) {
            throw std::runtime_error(path + ": is larger than 64 MiB");
        }
    }
    if (ferror(stream) != 0) {
        throw std::runtime_error(path + ": cannot be read");
    }
    return bytes;
}

std::string at_offset(std::size_t offset, const std::string& reason) {
    return "offset " + std::to_string(offset) + ": " + reason;
}

/// The record whose length byte stands at `at`; none when it is cut short.
std::optional<ContentRecord> record_at(const zelf::Bytes& bytes, std::size_t at) {
    const std::size_t size = bytes[at] + std::size_t{firmware_record_head_size};
    if (bytes.size() - at < size) {
        return std::nullopt;
    }
    const auto payload = bytes.begin() + static_cast<std::ptrdiff_t>(at);
    ContentRecord record;
    record.offset = at;
    record.tag = bytes[at + 1];
    record.value = bytes[at + 2] * 256 + bytes[at + 3];
    record.payload.assign(payload + firmware_record_head_size,
                          payload + static_cast<std::ptrdiff_t>(size));
    return record;
}

void read_end(FirmwareContent& content) {
    const zelf::Bytes& bytes = content.bytes;
    const std::size_t at = content.end;
    if (at == bytes.size()) {
        content.trouble = at_offset(at, "the file ends without an end mark");
    } else if (bytes[at] != 0) {
        content.trouble = at_offset(at, "the record is cut short");
    } else if (bytes.size() - at - 1 < firmware_checksum_size) {
        content.trouble = at_offset(bytes.size(), "the file ends inside the checksum");
    } else {
        content.checksum = bytes[at + 1] * 256 + bytes[at + 2];
        if (bytes.size() > at + 1 + firmware_checksum_size) {
            content.trouble =
                at_offset(at + 1 + firmware_checksum_size, "something stands behind the checksum");
        }
    }
}

void read_records(FirmwareContent& content) {
    const zelf::Bytes& bytes = content.bytes;
    ImageChecksum checksum(static_cast<std::uint16_t>(std::max(content.product, 0)));
    content.end = firmware_header_size;
    while (content.end < bytes.size() && bytes[content.end] != 0) {
        std::optional<ContentRecord> record = record_at(bytes, content.end);
        if (!record) {
            break;
        }
        const std::size_t size = record->payload.size() + firmware_record_head_size;
        checksum.add_record(std::span(bytes).subspan(content.end + 1, size - 1));
        const bool is_name = record->is_information() && record->tag != file_information_tag &&
                             record->value == COMPONENT_ID_STRING;
        if (is_name && !content.name) {
            content.name.emplace(record->payload.begin(), record->payload.end());
        }
        content.end += size;
        content.records.push_back(std::move(*record));
    }
    content.right_checksum = checksum.value();
    read_end(content);
}

}  // namespace

std::string ContentRecord::number() const {
    return printed("%02x%04x", static_cast<unsigned int>(tag), static_cast<unsigned int>(value));
}

std::string ContentRecord::meaning() const {
    constexpr const char* file_words[] = {"component list", "version list", "extended list"};
    constexpr const char* component_words[] = {"name", "version", "version with build"};
    if (!is_information()) {
        return (tag & 0x0F) == inline_version_kind ? "in-line version" : "data";
    }
    if (value < static_cast<int>(std::size(file_words))) {
        return tag == file_information_tag ? file_words[value] : component_words[value];
    }
    return "information";
}

std::size_t FirmwareContent::image_size() const {
    std::size_t size = 0;
    for (const ContentRecord& record : records) {
        size += record.meaning() == "data" ? record.payload.size() : 0;
    }
    return size;
}

std::size_t FirmwareContent::image_records() const {
    return static_cast<std::size_t>(
        std::count_if(records.begin(), records.end(),
                      [](const ContentRecord& record) { return record.meaning() == "data"; }));
}

FirmwareContent read_firmware_content(const std::string& path) {
    const FileHandle file = open_regular_file(path.c_str());
    if (file == nullptr) {
        throw std::runtime_error(path + ": cannot be opened, or is no regular file");
    }
    FirmwareContent content;
    content.bytes = read_whole(file.get(), path);
    rewind(file.get());
    read_file_info(file.get(), path.c_str(), content.product, content.version_digit,
                   content.component, content.level, content.type, content.build, content.control);
    const std::size_t size = std::min<std::size_t>(content.bytes.size(), firmware_header_size);
    content.header.assign(content.bytes.begin(),
                          content.bytes.begin() + static_cast<std::ptrdiff_t>(size));
    content.end = size;
    if (size < firmware_header_size) {
        content.trouble = at_offset(size, "the file ends inside the header");
        return content;
    }
    read_records(content);
    return content;
}

std::string level_text(int level) {
    return printed("%02x.%02x", (static_cast<unsigned int>(level) >> 8U) & 0xFFU,
                   static_cast<unsigned int>(level) & 0xFFU);
}

std::string four_digits(int value) {
    return printed("%04x", static_cast<unsigned int>(value) & 0xFFFFU);
}
