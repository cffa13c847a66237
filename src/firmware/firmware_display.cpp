#include "firmware/firmware_display.h"

#include "firmware/component_text.h"
#include "firmware/firmware_file.h"
#include "journal/output.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>
#include <string>

namespace {

constexpr std::size_t bytes_per_line = 25;
constexpr const char continuation[] = "\n                   ";

int high_byte(int level) {
    return (level >> 8) & 0xFF;
}
int low_byte(int level) {
    return level & 0xFF;
}

/// Two lower-case hexadecimal digits and `separator` for each byte.
void append_hexadecimal(std::string& text, std::span<const std::uint8_t> bytes, char separator) {
    constexpr const char digits[] = "0123456789abcdef";
    const std::size_t start = text.size();
    text.resize(start + 3 * bytes.size());
    char* at = text.data() + start;
    for (const std::uint8_t byte : bytes) {
        *at++ = digits[byte >> 4];
        *at++ = digits[byte & 0x0F];
        *at++ = separator;
    }
}

/// The lines that show records as bytes. Each message is flushed, on the console as in the log, and
/// an image has thousands of records: their lines go out some at a time.
class RecordLines {
  public:
    void add(int number, const FirmwareRecord& record);
    /// Writes the lines that wait. Due before any other message.
    void write();

  private:
    static constexpr std::size_t longest_message = 4195;

    std::string waiting_{};
    std::string line_{};
};

void RecordLines::add(int number, const FirmwareRecord& record) {
    char head[64];
    snprintf(head, sizeof head, "%03d:%-3d(R%06x) - ", number, record.body_size, record.number());
    line_ = head;
    auto bytes = record.read_bytes();
    while (bytes.size() > bytes_per_line) {
        append_hexadecimal(line_, bytes.first(bytes_per_line), '.');
        line_ += continuation;
        bytes = bytes.subspan(bytes_per_line);
    }
    append_hexadecimal(line_, bytes, '.');
    line_ += '\n';
    if (waiting_.size() + line_.size() > longest_message) {
        write();
    }
    waiting_ += line_;
}

void RecordLines::write() {
    if (!waiting_.empty()) {
        writelog(1, "%s", waiting_.c_str());
        waiting_.clear();
    }
}

/// Decodes information records; what it does not decode stays a line of bytes.
class RecordDecoder {
  public:
    /// Whether the next record directly follows decoded ones, or is the first.
    bool is_due() const { return follows_decoded_; }

    /// Shows the meaning of a record that is due.
    void take(const FirmwareRecord& record) { follows_decoded_ = decode(record); }

    /// The next record follows one that was not decoded.
    void skip() { follows_decoded_ = false; }

  private:
    // Each returns true when it decoded an information record.
    bool decode(const FirmwareRecord& record);
    bool show_file_information(const FirmwareRecord& record);
    bool show_component_information(const FirmwareRecord& record);

    bool follows_decoded_ = true;
    int component_ = -1;
};

bool show_version_list(std::span<const std::uint8_t> payload) {
    constexpr std::size_t entry_size = sizeof(VersionListEntry);
    if (payload.size() < entry_size) {
        return false;
    }
    writelog(1, "Component Version List:\n");
    for (std::size_t offset = 0; offset + entry_size <= payload.size(); offset += entry_size) {
        const VersionListEntry entry = version_list_entry(payload, offset);
        writelog(1,
                 "    Marker:     %d\n"
                 "    Component:  %d\n"
                 "    Version:    %02x.%02x\n"
                 "    Flag:       %d (%s)\n",
                 entry.marker_and_component >> 4, entry.marker_and_component & 0x0F, entry.major,
                 entry.minor, entry.flags, (entry.flags & 1) != 0 ? "Configuration" : "Firmwware");
    }
    writelog(1, "\n");
    return true;
}

bool show_extended_version_list(std::span<const std::uint8_t> payload) {
    constexpr std::size_t entry_size = sizeof(ExtendedVersionListEntry);
    if (payload.size() < entry_size) {
        return false;
    }
    writelog(1, "Component Version List Extended:\n");
    for (std::size_t offset = 0; offset + entry_size <= payload.size(); offset += entry_size) {
        const ExtendedVersionListEntry entry = extended_version_list_entry(payload, offset);
        writelog(1,
                 "    Component:          %d\n"
                 "    Version:            %02x.%02x\n"
                 "    File type           %d (%s)\n"
                 "    Version Management: %d (%s)\n"
                 "    Build Level:        %02x\n",
                 entry.component & 0x0F, entry.major, entry.minor, entry.type(),
                 type_word(entry.type()).c_str(), entry.version_method(),
                 control_text(entry.version_method()), entry.build_level);
    }
    writelog(1, "\n");
    return true;
}

void show_component_id_list(std::span<const std::uint8_t> payload) {
    std::string list;
    append_hexadecimal(list, payload, ' ');
    writelog(1, "Component ID List: %s\n", list.c_str());
}

void show_component_name(int component, std::span<const std::uint8_t> payload) {
    std::string name;
    for (const std::uint8_t byte : payload.first(std::min(payload.size(), component_name_size))) {
        if (byte != 0) {  // a zero byte shows as nothing
            name += static_cast<char>(byte);
        }
    }
    writelog(1, "Component %d ID String: %s\n", component, name.c_str());
}

bool RecordDecoder::decode(const FirmwareRecord& record) {
    if (record.tag() == file_information_tag) {
        return show_file_information(record);
    }
    if (record.component() != component_) {
        return false;
    }
    if (record.is_information()) {
        return show_component_information(record);
    }
    const int version = record.kind() == inline_version_kind ? inline_version(record) : -1;
    if (version >= 0) {
        writelog(1, "Component version: %04x\n", static_cast<unsigned int>(version));
    }
    return false;  // belongs to the image: no information record follows it
}

bool RecordDecoder::show_file_information(const FirmwareRecord& record) {
    switch (record.subtype()) {
        case COMPONENT_ID_LIST:
            show_component_id_list(record.payload());
            component_ = record.payload().front();
            return true;
        case COMPONENT_VERSION_LIST:
            return show_version_list(record.payload());
        case COMPONENT_VERSION_LIST_EXTENDED:
            return show_extended_version_list(record.payload());
        default:
            return false;
    }
}

bool RecordDecoder::show_component_information(const FirmwareRecord& record) {
    const auto payload = record.payload();
    if (record.subtype() == COMPONENT_ID_STRING) {
        show_component_name(component_, payload);
        return true;
    }
    if (record.subtype() == COMPONENT_VERSION && payload.size() >= 2) {
        writelog(1, "Component %d Version: %02x.%02x\n", component_, payload[1], payload[0]);
        return true;
    }
    return false;
}

void show_checksum(FirmwareRecordReader& reader) {
    std::array<std::uint8_t, firmware_checksum_size> checksum{};
    const int count = reader.read_checksum(checksum);
    if (count < firmware_checksum_size) {
        writelog(1, "File corrupted (read=%d needed=%d)\n", count, firmware_checksum_size);
        return;
    }
    writelog_notrace(1, "Checksum -         %02x.%02x", checksum[0], checksum[1]);
}

/// Lists the records from the stream's position to the checksum. Returns why it stopped.
RecordResult show_records(FirmwareRecordReader& reader) {
    RecordLines lines;
    RecordDecoder decoder;
    FirmwareRecord record;
    for (int number = 0;; ++number) {
        const RecordResult result = reader.next(record);
        if (result != RecordResult::whole && result != RecordResult::short_body) {
            lines.write();
            return result;
        }
        lines.add(number, record);
        if (result == RecordResult::short_body) {
            decoder.skip();
        } else if (decoder.is_due()) {
            lines.write();
            decoder.take(record);
        }
    }
}

void show_end(RecordResult end, FirmwareRecordReader& reader) {
    if (end == RecordResult::end_mark) {
        show_checksum(reader);
    } else if (end == RecordResult::read_error) {
        writelog(1, "File corrupted (read=%d needed=%d)\n", 0, 1);
    }
}

}  // namespace

void display_firmware_stream(FILE* stream) {
    const int product_id = read_product_id(stream, firmware_header_field_size);
    writelog(1, "ProductID:  %04x\n", static_cast<unsigned int>(product_id));
    if (product_id < 1) {
        return;
    }
    char version = 0;
    const int ec_level = read_ec_level(stream, firmware_header_field_size, version);
    writelog(1, "EC Level:   %02x.%02x\n", high_byte(ec_level), low_byte(ec_level));
    if (ec_level < 1) {
        return;
    }
    writelog(1, "Flash Data:\n");
    FirmwareRecordReader reader(stream);
    show_end(show_records(reader), reader);
}
