/// \file
/// The firmware file format: an ASCII header with product ID and EC level, length-prefixed records,
/// a length byte of 0 as end mark, and two checksum bytes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <span>

/// Header: four hexadecimal digits of the product ID, four of the EC level (major, minor).
constexpr int firmware_header_field_size = 4;
constexpr int firmware_header_size = 8;

/// Bytes of a record beside its payload: length byte, tag, 16-bit value.
constexpr int firmware_record_head_size = 4;
constexpr int firmware_record_max_payload = 255;
constexpr int firmware_record_max_size = firmware_record_head_size + firmware_record_max_payload;
constexpr int firmware_checksum_size = 2;

/// High nibble of the tag of an information record.
constexpr int information_nibble = 15;
/// Tag of an information record that tells about the whole file.
constexpr std::uint8_t file_information_tag = 0xFF;
/// Low nibble of the tag of a component's in-line version record.
constexpr int inline_version_kind = 15;
/// Characters shown of a component's name.
constexpr std::size_t component_name_size = 32;

/// Record subtypes of tag 0xFF.
enum FileInformation {
    COMPONENT_ID_LIST = 0,
    COMPONENT_VERSION_LIST = 1,
    COMPONENT_VERSION_LIST_EXTENDED = 2,
};

/// Record subtypes of the tags 0xF0 to 0xFE; the low nibble is the component.
enum ComponentInformation {
    COMPONENT_ID_STRING = 0,
    COMPONENT_VERSION = 1,
    COMPONENT_VERSION_WITH_BUILD = 2,
};

enum FirmwareFileType {
    FILE_TYPE_UNSPECIFIED = 0,
    FILE_TYPE_FIRMWARE = 1,
    FILE_TYPE_CONFIGURATION = 2,
    FILE_TYPE_FONT = 3,
    FILE_TYPE_UNKNOWN = 128,  ///< neither ".dat" nor ".cfg", and no extended list says otherwise
};

enum VersionMethod { VERSION_INCREASING = 0, VERSION_RANDOM = 1 };

/// Entry of a component version list record.
struct VersionListEntry {
    std::uint8_t marker_and_component;  ///< marker in the high nibble
    std::uint8_t minor;
    std::uint8_t major;
    std::uint8_t flags;  ///< bit 0: 1 configuration, 0 firmware
};
static_assert(sizeof(VersionListEntry) == 4);

/// Entry of an extended component version list record.
struct ExtendedVersionListEntry {
    std::uint8_t component;
    std::uint8_t minor;
    std::uint8_t major;
    std::uint8_t flags;  ///< bit 0: `VersionMethod`, bits 1 and 2: type
    std::uint8_t build_level;

    int version() const { return major * 256 + minor; }
    int type() const { return (flags >> 1) & 3; }
    int version_method() const { return flags & 1; }
};
static_assert(sizeof(ExtendedVersionListEntry) == 5);

/// One record as it stands in the file.
struct FirmwareRecord {
    /// Length byte, tag, 16-bit value (high byte first), payload; zeros where nothing was read.
    std::array<std::uint8_t, firmware_record_max_size> bytes{};
    /// Bytes read behind the length byte: length + 3 unless the file ended before.
    int body_size = 0;

    int length() const { return bytes[0]; }
    int needed_body_size() const { return length() + firmware_record_head_size - 1; }
    std::uint8_t tag() const { return bytes[1]; }
    bool is_information() const { return tag() >> 4 == information_nibble; }
    /// The component that the tag names; of an information record other than 0xFF it is the low
    /// nibble.
    int component() const { return is_information() ? tag() & 0x0F : tag() >> 4; }
    int kind() const { return tag() & 0x0F; }
    int subtype() const { return bytes[2] * 256 + bytes[3]; }
    /// Tag and value as one number, as a listing shows it.
    unsigned int number() const { return (bytes[1] * 256U + bytes[2]) * 256U + bytes[3]; }
    /// The payload of a record that was read whole.
    std::span<const std::uint8_t> payload() const {
        return std::span(bytes).subspan(firmware_record_head_size,
                                        static_cast<std::size_t>(length()));
    }
    /// Length byte and the bytes that were read behind it.
    std::span<const std::uint8_t> read_bytes() const {
        return std::span(bytes).first(static_cast<std::size_t>(body_size) + 1);
    }
};

enum class RecordResult {
    whole,        ///< a complete record
    short_body,   ///< the file ended inside the record
    end_mark,     ///< a length byte of 0: the checksum follows
    end_of_file,  ///< no length byte, without a read error
    read_error,   ///< the length byte could not be read
};

/// Reads the records of a file one by one. The stream stays the caller's and stands behind the
/// header at first.
class FirmwareRecordReader {
  public:
    explicit FirmwareRecordReader(FILE* stream) : stream_(stream) {}

    /// Reads the next record into `record`.
    RecordResult next(FirmwareRecord& record);

    /// After the end mark: reads the checksum in file order. Returns the number of bytes read, 0
    /// to 2; a byte that is missing reads as 0.
    int read_checksum(std::array<std::uint8_t, firmware_checksum_size>& checksum);

  private:
    FILE* stream_;
};

/// Reads `n` characters (at most 199) and parses them as hexadecimal: what is no hexadecimal number
/// reads as 0. Returns -1 when fewer than `n` were read.
int read_product_id(FILE* stream, int n);

/// As `read_product_id`; also hands back the second character read, the version digit.
int read_ec_level(FILE* stream, int n, char& version);

/// The value of four hexadecimal digits, 0 when they are none.
int hexadecimal_value(std::span<const std::uint8_t> digits);

/// The big-endian value of `n` bytes, each taken as signed; 0 when `n` is below 1.
int getint(const char* bytes, int n);

/// The version that an in-line version record holds: four ASCII digits, or two bytes major first.
/// -1 when its payload has another length.
int inline_version(const FirmwareRecord& record);

/// The entry at `offset` of a version list's payload, which must hold it whole.
VersionListEntry version_list_entry(std::span<const std::uint8_t> payload, std::size_t offset);
ExtendedVersionListEntry extended_version_list_entry(std::span<const std::uint8_t> payload,
                                                     std::size_t offset);

/// The number of records of a file, counting one that is cut short; 0 when it can't be opened.
int count_download_lines(const char* path);

/// The same of an open file, from its header on.
int count_download_lines(FILE* file);

/// Result of `read_file_info` for a file that can't be opened.
constexpr int no_firmware_file = 8;

/// Reads a file's summary. Returns 0, or 8 when the file can't be opened.
///
/// \param product_id      from the header, -1 when that is short
/// \param version         second character of the EC level minus '0'
/// \param component       the component that the file is for, 0 when it names none
/// \param ec_level        major * 256 + minor, -1 when the header is short
/// \param file_type       a `FirmwareFileType`
/// \param build_level     0 when the file has none
/// \param version_method  a `VersionMethod`
int read_file_info(const char* path, int& product_id, int& version, int& component, int& ec_level,
                   int& file_type, int& build_level, int& version_method);

/// The same of an open file that stands at its start, null when it can't be opened; `path` is its
/// name.
void read_file_info(FILE* file, const char* path, int& product_id, int& version, int& component,
                    int& ec_level, int& file_type, int& build_level, int& version_method);

/// True when the name ends in `extension` (with its dot), whatever the case.
bool has_extension(const char* name, const char* extension);
