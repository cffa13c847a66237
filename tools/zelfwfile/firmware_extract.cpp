#include "zelfwfile/firmware_extract.h"

#include "common/printed.h"
#include "common/utf8.h"
#include "zelfwfile/firmware_description.h"
#include "zelfwfile/firmware_image.h"

#include <algorithm>
#include <stdexcept>

using zelf::printed;

namespace {

[[noreturn]] void refuse(const std::string& reason) {
    throw std::runtime_error("no description can express this: " + reason);
}

std::string record_name(const FirmwareContent& content, const ContentRecord& record) {
    return printed("record %zu (%s)",
                   static_cast<std::size_t>(&record - content.records.data()) + 1,
                   record.number().c_str());
}

/// The component that the records name; that of the first data record when they differ.
int component_of(const FirmwareContent& content) {
    const auto data =
        std::find_if(content.records.begin(), content.records.end(),
                     [](const ContentRecord& record) { return record.meaning() == "data"; });
    return data == content.records.end() ? 0 : data->tag >> 4;
}

/// What the lists say of type, control and build, wherever one does.
void take_information(const ContentRecord& record, FirmwareDescription& description) {
    const zelf::Bytes& payload = record.payload;
    if (record.meaning() == "extended list" && payload.size() == sizeof(ExtendedVersionListEntry)) {
        const ExtendedVersionListEntry entry = extended_version_list_entry(payload, 0);
        description.type = static_cast<FirmwareFileType>(entry.type());
        description.control = static_cast<VersionMethod>(entry.version_method());
        description.build = entry.build_level;
    } else if (record.meaning() == "version list" && payload.size() == sizeof(VersionListEntry) &&
               payload.back() == 1) {
        description.type = FILE_TYPE_CONFIGURATION;
    } else if (record.meaning() == "version with build" && payload.size() == 4) {
        description.build = payload.back();
    } else if (record.meaning() == "name" && description.name.empty()) {
        description.name.assign(payload.begin(), payload.end());
    }
}

FirmwareDescription described(const FirmwareContent& content) {
    FirmwareDescription description;
    description.product = content.product;
    description.level = content.level;
    description.component = component_of(content);
    for (const ContentRecord& record : content.records) {
        take_information(record, description);
        if (record.meaning() == "data") {
            description.records.push_back(record.payload);
        }
    }
    if (content.checksum != content.right_checksum) {
        description.checksum = content.checksum;
    }
    return description;
}

void check_name(const std::string& name) {
    if (name.size() > component_name_size) {
        refuse("a name of " + std::to_string(name.size()) + " bytes");
    }
    for (std::string_view rest = name; !rest.empty();) {
        const std::size_t length = zelf::character_length(rest);
        if (length == 0) {
            refuse("a name that is no UTF-8");
        }
        rest.remove_prefix(length);
    }
}

void check_frame(const FirmwareContent& content) {
    if (!content.trouble.empty()) {
        refuse(content.trouble);
    }
    if (content.header != four_digits(content.product) + four_digits(content.level)) {
        refuse("offset 0: a header that is not eight lower-case hexadecimal digits");
    }
    if (content.product == 0 || content.level == 0) {
        refuse("offset 0: product or level 0");
    }
    if (content.image_records() == 0) {
        refuse("there is no data record");
    }
}

/// The information record of the language that gives these bytes.
InformationRecord information_of(const FirmwareContent& content, const ContentRecord& record,
                                 const FirmwareDescription& description) {
    for (const InformationRecord candidate : all_information_records()) {
        if (const zelf::Bytes made = information_record_bytes(candidate, description);
            made.size() == record.payload.size() + firmware_record_head_size &&
            std::equal(made.begin(), made.end(),
                       content.bytes.begin() + static_cast<std::ptrdiff_t>(record.offset))) {
            return candidate;
        }
    }
    refuse(record_name(content, record) + " is not as the other records have it");
}

void check_records(const FirmwareContent& content, FirmwareDescription& description) {
    int number = 0;
    for (const ContentRecord& record : content.records) {
        if (record.meaning() != "data") {
            if (number > 0) {
                refuse(record_name(content, record) + " is information behind data");
            }
            description.information.push_back(information_of(content, record, description));
            continue;
        }
        if (record.tag != description.component << 4 || record.value != number) {
            refuse(record_name(content, record) + " is not data record " + std::to_string(number) +
                   " of component " + std::to_string(description.component));
        }
        ++number;
    }
}

std::string toml_string(const std::string& text) {
    std::string toml = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < ' ' || byte == 0x7F) {
            toml += printed("\\u%04x", static_cast<unsigned int>(byte));
        } else {
            toml.append(c == '"' || c == '\\' ? "\\" : "").append(1, c);
        }
    }
    return toml + "\"";
}

/// Whether records are cut from one image: all of one size, the last one at most.
bool is_evenly_cut(const std::vector<zelf::Bytes>& records) {
    const std::size_t size = records.front().size();
    return records.back().size() <= size &&
           std::all_of(records.begin(), records.end() - 1,
                       [size](const zelf::Bytes& record) { return record.size() == size; });
}

std::string data_text(const std::vector<zelf::Bytes>& records) {
    std::string text = "hex = [\n";
    for (const zelf::Bytes& record : records) {
        text += "  \"";
        for (const std::uint8_t byte : record) {
            text += printed("%02x", static_cast<unsigned int>(byte));
        }
        text += "\",\n";
    }
    return text + "]\n";
}

std::string head_text(const FirmwareDescription& description) {
    std::string text =
        printed("product = 0x%04X\n", static_cast<unsigned int>(description.product));
    text += "level = \"" + level_text(description.level) + "\"\n";
    text += "component = " + std::to_string(description.component) + "\n";
    text += "build = " + std::to_string(description.build) + "\n";
    if (!description.name.empty()) {
        text += "name = " + toml_string(description.name) + "\n";
    }
    text += "type = \"" + described_type(description.type) + "\"\n";
    text += "control = \"" + described_control(description.control) + "\"\n";
    std::string words;
    for (const InformationRecord record : description.information) {
        words += (words.empty() ? "\"" : ", \"") + information_word(record) + "\"";
    }
    text += "information = [" + words + "]\n";
    if (description.checksum) {
        text += printed("checksum = 0x%04X\n", static_cast<unsigned int>(*description.checksum));
    }
    return text;
}

}  // namespace

ExtractedFirmware extract_firmware(const FirmwareContent& content, const std::string& image_name) {
    check_frame(content);
    FirmwareDescription description = described(content);
    check_name(description.name);
    check_records(content, description);
    if (firmware_file_bytes(description) != content.bytes) {
        refuse("the file that was made from it differs");
    }
    ExtractedFirmware extracted;
    extracted.description = head_text(description) + "\n[data]\n";
    const std::vector<zelf::Bytes>& records = description.records;
    if (!is_evenly_cut(records)) {
        extracted.description += data_text(records);
        return extracted;
    }
    for (const zelf::Bytes& record : records) {
        extracted.image.insert(extracted.image.end(), record.begin(), record.end());
    }
    extracted.description += "image = " + toml_string(image_name) +
                             "\nrecord_size = " + std::to_string(records.front().size()) + "\n";
    return extracted;
}
