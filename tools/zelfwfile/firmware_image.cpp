#include "zelfwfile/firmware_image.h"

#include "common/file_access.h"
#include "common/image_checksum.h"

#include <sys/stat.h>

#include <array>
#include <cstdio>
#include <span>
#include <stdexcept>

namespace {

using zelf::Bytes;

/// The four digits of a product ID or level.
Bytes digit_bytes(int value) {
    char text[16];
    snprintf(text, sizeof text, "%04x", static_cast<unsigned int>(value));
    return {text, text + firmware_header_field_size};
}

std::uint8_t byte_of(int value) {
    return static_cast<std::uint8_t>(value);
}

struct InformationContent {
    int tag;
    int subtype;
    Bytes payload;
};

InformationContent content_of(InformationRecord record, const FirmwareDescription& file) {
    const std::uint8_t component = byte_of(file.component);
    const std::uint8_t major = byte_of(file.level >> 8);
    const std::uint8_t minor = byte_of(file.level);
    const std::uint8_t build = byte_of(file.build);
    const int own_tag = information_nibble << 4 | file.component;
    const int inline_tag = file.component << 4 | inline_version_kind;
    switch (record) {
        case InformationRecord::component_list:
            return {file_information_tag, COMPONENT_ID_LIST, {component}};
        case InformationRecord::version_list: {
            const int flags = file.type == FILE_TYPE_CONFIGURATION ? 1 : 0;
            return {file_information_tag,
                    COMPONENT_VERSION_LIST,
                    {component, minor, major, byte_of(flags)}};
        }
        case InformationRecord::extended_list:
            return {file_information_tag,
                    COMPONENT_VERSION_LIST_EXTENDED,
                    {component, minor, major, byte_of(file.type << 1 | file.control), build}};
        case InformationRecord::name:
            return {own_tag, COMPONENT_ID_STRING, {file.name.begin(), file.name.end()}};
        case InformationRecord::version:
            return {own_tag, COMPONENT_VERSION, {minor, major}};
        case InformationRecord::version_with_build:
            return {own_tag, COMPONENT_VERSION_WITH_BUILD, {minor, major, 0, build}};
        case InformationRecord::inline_version:
            return {inline_tag, 0, {major, minor}};
        case InformationRecord::inline_version_text:
            return {inline_tag, 0, digit_bytes(file.level)};
    }
    throw std::logic_error("unknown information record");
}

void append(Bytes& bytes, std::span<const std::uint8_t> more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

void append_record(Bytes& bytes, ImageChecksum& checksum, int tag, int value,
                   std::span<const std::uint8_t> payload) {
    Bytes record{byte_of(tag), byte_of(value >> 8), byte_of(value)};
    append(record, payload);
    if (!checksum.add_record(record)) {
        throw std::logic_error("record of an impossible size");
    }
    bytes.push_back(byte_of(static_cast<int>(payload.size())));
    append(bytes, record);
}

}  // namespace

std::vector<std::uint8_t> firmware_file_bytes(const FirmwareDescription& description) {
    Bytes bytes = digit_bytes(description.product);
    append(bytes, digit_bytes(description.level));
    ImageChecksum checksum(static_cast<std::uint16_t>(description.product));
    for (const InformationRecord record : description.information) {
        const InformationContent content = content_of(record, description);
        append_record(bytes, checksum, content.tag, content.subtype, content.payload);
    }
    int number = 0;
    for (const Bytes& payload : description.records) {
        append_record(bytes, checksum, description.component << 4, number, payload);
        ++number;
    }
    const int value = description.checksum.value_or(checksum.value());
    append(bytes, std::array{std::uint8_t{0}, byte_of(value >> 8), byte_of(value)});
    return bytes;
}

std::vector<std::uint8_t> information_record_bytes(InformationRecord record,
                                                   const FirmwareDescription& description) {
    const InformationContent content = content_of(record, description);
    Bytes bytes{byte_of(static_cast<int>(content.payload.size())), byte_of(content.tag),
                byte_of(content.subtype >> 8), byte_of(content.subtype)};
    append(bytes, content.payload);
    return bytes;
}

void write_whole_file(const std::string& path, const std::vector<std::uint8_t>& bytes) {
    struct stat status = {};
    if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        throw std::runtime_error(path + ": is no regular file");
    }
    zelf::replace_file(path, bytes, zelf::Durable::yes);
}
