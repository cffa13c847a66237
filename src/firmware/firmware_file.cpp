#include "firmware/firmware_file.h"

#include "journal/file_handle.h"
#include "journal/output.h"
#include "settings.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr std::size_t header_buffer_size = 200;

/// Reads `n` characters into a zeroed buffer; false when fewer came.
bool read_header_field(FILE* stream, int n, std::array<char, header_buffer_size>& text) {
    const std::size_t wanted =
        std::min(static_cast<std::size_t>(std::max(n, 0)), header_buffer_size - 1);
    return fread(text.data(), 1, wanted, stream) == wanted;
}

int parse_hexadecimal(const char* text) {
    return static_cast<int>(strtoul(text, nullptr, 16));
}

/// Gathers a file's summary from its information records.
class SummaryScan {
  public:
    SummaryScan(int& file_type, int& build_level, int& version_method)
        : file_type_(file_type), build_level_(build_level), version_method_(version_method) {}

    void run(FILE* stream);

    int component() const { return std::max(component_, 0); }
    int component_version() const { return component_version_; }

  private:
    enum class Step { go_on, stop };

    Step take(const FirmwareRecord& record, bool first);
    Step take_file_information(const FirmwareRecord& record, bool first);
    Step take_component_information(const FirmwareRecord& record);
    Step take_component_record(const FirmwareRecord& record);
    void take_extended_entry(const ExtendedVersionListEntry& entry);
    void take_type(int type);

    int component_ = -1;
    int component_version_ = -1;
    int& file_type_;
    int& build_level_;
    int& version_method_;
};

void SummaryScan::run(FILE* stream) {
    FirmwareRecordReader reader(stream);
    FirmwareRecord record;
    for (bool first = true;; first = false) {
        switch (reader.next(record)) {
            case RecordResult::whole:
                if (take(record, first) == Step::stop) {
                    return;
                }
                break;
            case RecordResult::short_body:
                if (first) {
                    return;
                }
                break;
            case RecordResult::read_error:
                writelog(1, "File corrupted (read=%d needed=%d)\n", 0, 1);
                return;
            case RecordResult::end_mark:
            case RecordResult::end_of_file:
                return;
        }
    }
}

SummaryScan::Step SummaryScan::take(const FirmwareRecord& record, bool first) {
    if (record.tag() == file_information_tag) {
        return take_file_information(record, first);
    }
    return record.is_information() ? take_component_information(record)
                                   : take_component_record(record);
}

SummaryScan::Step SummaryScan::take_file_information(const FirmwareRecord& record, bool first) {
    const auto payload = record.payload();
    if (record.subtype() == COMPONENT_ID_LIST) {
        component_ = payload[0];
        writedebug("    Component ID:      %d\n", component_);
        return Step::go_on;
    }
    if (record.subtype() == COMPONENT_VERSION_LIST_EXTENDED &&
        payload.size() >= sizeof(ExtendedVersionListEntry)) {
        take_extended_entry(extended_version_list_entry(payload, 0));
        return Step::go_on;
    }
    return first ? Step::stop : Step::go_on;
}

void SummaryScan::take_extended_entry(const ExtendedVersionListEntry& entry) {
    component_ = entry.component;
    component_version_ = entry.version();
    build_level_ = entry.build_level;
    writedebug("    Component ID: %d  Version: %02x.%02x.%02x (Flag: %02x)\n", component_,
               entry.major, entry.minor, entry.build_level, entry.flags);
    take_type(entry.type());
    version_method_ = entry.version_method();
    writedebug(version_method_ == VERSION_RANDOM ? "    Random version\n"
                                                 : "    Increasing version\n");
}

void SummaryScan::take_type(int type) {
    switch (type) {
        case FILE_TYPE_FIRMWARE:
            writedebug("    Firmware component type\n");
            file_type_ = FILE_TYPE_FIRMWARE;
            break;
        case FILE_TYPE_CONFIGURATION:
            writedebug("    Configuration component type\n");
            file_type_ = FILE_TYPE_CONFIGURATION;
            break;
        case FILE_TYPE_FONT:
            writedebug("    Font component type\n");
            file_type_ = FILE_TYPE_FONT;
            break;
        case FILE_TYPE_UNSPECIFIED:
            writedebug("    Unspecified component type\n");
            file_type_ = component_ == 0 ? FILE_TYPE_FIRMWARE : FILE_TYPE_UNSPECIFIED;
            break;
        default:
            writedebug("    Unknown component type (value=%02x)\n", type);
            break;
    }
}

SummaryScan::Step SummaryScan::take_component_information(const FirmwareRecord& record) {
    if (record.component() != component_) {
        return Step::stop;
    }
    const auto payload = record.payload();
    if (record.subtype() == COMPONENT_ID_STRING) {
        const std::string name(
            payload.begin(), payload.begin() + static_cast<std::ptrdiff_t>(
                                                   std::min(payload.size(), component_name_size)));
        writedebug("    Component %d ID String: %s\n", component_, name.c_str());
    } else if (record.subtype() == COMPONENT_VERSION && payload.size() >= 2) {
        component_version_ = payload[1] * 256 + payload[0];
        writedebug("    Component version: %02x.%02x\n", payload[1], payload[0]);
    } else if (record.subtype() == COMPONENT_VERSION_WITH_BUILD && payload.size() >= 4) {
        component_version_ = payload[1] * 256 + payload[0];
        build_level_ = payload[3];
        writedebug("    Component version: %02x.%02x.%02x\n", payload[1], payload[0], payload[3]);
    }
    return Step::go_on;
}

SummaryScan::Step SummaryScan::take_component_record(const FirmwareRecord& record) {
    if (record.component() != component_ || record.kind() != inline_version_kind) {
        return Step::stop;
    }
    const int version = inline_version(record);
    if (version >= 0) {
        component_version_ = version;
    }
    return Step::go_on;
}

}  // namespace

RecordResult FirmwareRecordReader::next(FirmwareRecord& record) {
    record.bytes.fill(0);
    record.body_size = 0;
    const int length = fgetc(stream_);
    if (length == EOF) {
        return ferror(stream_) != 0 ? RecordResult::read_error : RecordResult::end_of_file;
    }
    if (length == 0) {
        return RecordResult::end_mark;
    }
    record.bytes[0] = static_cast<std::uint8_t>(length);
    const auto needed = static_cast<std::size_t>(record.needed_body_size());
    record.body_size = static_cast<int>(fread(&record.bytes[1], 1, needed, stream_));
    return record.body_size == record.needed_body_size() ? RecordResult::whole
                                                         : RecordResult::short_body;
}

int FirmwareRecordReader::read_checksum(
    std::array<std::uint8_t, firmware_checksum_size>& checksum) {
    checksum.fill(0);
    return static_cast<int>(fread(checksum.data(), 1, checksum.size(), stream_));
}

int read_product_id(FILE* stream, int n) {
    std::array<char, header_buffer_size> text{};
    return read_header_field(stream, n, text) ? parse_hexadecimal(text.data()) : -1;
}

int read_ec_level(FILE* stream, int n, char& version) {
    std::array<char, header_buffer_size> text{};
    const bool whole = read_header_field(stream, n, text);
    version = text[1];
    return whole ? parse_hexadecimal(text.data()) : -1;
}

int hexadecimal_value(std::span<const std::uint8_t> digits) {
    return parse_hexadecimal(std::string(digits.begin(), digits.end()).c_str());
}

int getint(const char* bytes, int n) {
    unsigned int value = 0;
    for (int i = 0; i < n; ++i) {
        value = value * 256U + static_cast<unsigned int>(static_cast<signed char>(bytes[i]));
    }
    return static_cast<int>(value);
}

int inline_version(const FirmwareRecord& record) {
    const auto payload = record.payload();
    switch (payload.size()) {
        case 2:
            return payload[0] * 256 + payload[1];
        case 4:
            return hexadecimal_value(payload) & 0xFFFF;
        default:
            return -1;
    }
}

VersionListEntry version_list_entry(std::span<const std::uint8_t> payload, std::size_t offset) {
    VersionListEntry entry;
    memcpy(&entry, payload.subspan(offset, sizeof entry).data(), sizeof entry);
    return entry;
}

ExtendedVersionListEntry extended_version_list_entry(std::span<const std::uint8_t> payload,
                                                     std::size_t offset) {
    ExtendedVersionListEntry entry;
    memcpy(&entry, payload.subspan(offset, sizeof entry).data(), sizeof entry);
    return entry;
}

int count_download_lines(const char* path) {
    const FileHandle file = open_regular_file(path);
    return file != nullptr ? count_download_lines(file.get()) : 0;
}

int count_download_lines(FILE* file) {
    if (fseek(file, firmware_header_size, SEEK_SET) != 0) {
        return 0;
    }
    FirmwareRecordReader reader(file);
    FirmwareRecord record;
    int count = 0;
    RecordResult result = reader.next(record);
    while (result == RecordResult::whole || result == RecordResult::short_body) {
        ++count;
        result = reader.next(record);
    }
    if (result == RecordResult::read_error) {
        writelog(1, "File corrupted\n");
    }
    return count;
}

int read_file_info(const char* path, int& product_id, int& version, int& component, int& ec_level,
                   int& file_type, int& build_level, int& version_method) {
    const FileHandle file = open_regular_file(path);
    read_file_info(file.get(), path, product_id, version, component, ec_level, file_type,
                   build_level, version_method);
    return file != nullptr ? 0 : no_firmware_file;
}

void read_file_info(FILE* file, const char* path, int& product_id, int& version, int& component,
                    int& ec_level, int& file_type, int& build_level, int& version_method) {
    product_id = version = component = ec_level = build_level = 0;
    version_method = VERSION_INCREASING;
    file_type = has_extension(path, ".dat") || has_extension(path, ".cfg") ? FILE_TYPE_FIRMWARE
                                                                           : FILE_TYPE_UNKNOWN;
    writedebug("File '%s':\n", path);
    if (file == nullptr) {
        writedebug("    Not found\n");
        return;
    }
    char version_character = 0;
    product_id = read_product_id(file, firmware_header_field_size);
    ec_level = read_ec_level(file, firmware_header_field_size, version_character);
    version = static_cast<unsigned char>(version_character) - '0';
    writedebug("    ProductID:         %04x\n", static_cast<unsigned int>(product_id));
    writedebug("    EC Level:          %02x.%02x\n", (ec_level >> 8) & 0xFF, ec_level & 0xFF);
    writedebug("    Version:           %d\n", version);
    if (ec_level < 1) {
        return;
    }
    SummaryScan scan(file_type, build_level, version_method);
    scan.run(file);
    component = scan.component();
    if (use_information_record_ec_level != 0 && scan.component_version() >= 0) {
        ec_level = scan.component_version();
    }
}

bool has_extension(const char* name, const char* extension) {
    const std::size_t length = strlen(name);
    const std::size_t wanted = strlen(extension);
    return length >= wanted && strcasecmp(name + (length - wanted), extension) == 0;
}
