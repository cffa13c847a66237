#include "zelfwfile/firmware_show.h"

#include "common/printed.h"
#include "common/utf8.h"
#include "zelfwfile/firmware_description.h"

#include <nlohmann/json.hpp>

using zelf::printed;

namespace {

std::string version_digit(const FirmwareContent& content) {
    return std::to_string(content.version_digit);
}

std::string checksum_words(const FirmwareContent& content) {
    if (!content.checksum) {
        return "none, right is " + four_digits(content.right_checksum);
    }
    const bool is_right = *content.checksum == content.right_checksum;
    return four_digits(*content.checksum) +
           (is_right ? ", right" : ", wrong: it must be " + four_digits(content.right_checksum));
}

void add_field(std::string& text, const char* name, const std::string& value) {
    text += printed("  %-10s ", name) + value + "\n";
}

}  // namespace

std::string quoted_text(std::string_view text) {
    std::string safe = "\"";
    while (!text.empty()) {
        const std::size_t length = zelf::character_length(text);
        const char first = text.front();
        const bool is_control = static_cast<unsigned char>(first) < ' ' || first == '\x7f' ||
                                (length == 2 && zelf::code_point(text.substr(0, 2)) < 0xA0);
        if (length == 0 || is_control) {
            for (const char byte : text.substr(0, length == 0 ? 1 : length)) {
                safe += printed("\\x%02x", static_cast<unsigned char>(byte));
            }
        } else {
            safe.append(first == '"' || first == '\\' ? "\\" : "").append(text.substr(0, length));
        }
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return safe + "\"";
}

std::string shown_as_text(const std::string& path, const FirmwareContent& content) {
    std::string text = path + ":\n";
    add_field(text, "Product", content.product < 0 ? "none" : four_digits(content.product));
    add_field(text, "Level", content.level < 0 ? "none" : level_text(content.level));
    add_field(text, "Version", version_digit(content));
    add_field(text, "Component", std::to_string(content.component));
    add_field(text, "Build", printed("%02x", static_cast<unsigned int>(content.build)));
    add_field(text, "Type", described_type(content.type));
    add_field(text, "Control", described_control(content.control));
    if (content.name) {
        add_field(text, "Name", quoted_text(*content.name));
    }
    add_field(text, "Image",
              printed("%zu bytes in %zu records", content.image_size(), content.image_records()));
    add_field(text, "Checksum", checksum_words(content));
    text += printed("  %8s  %8s  %-6s  %6s\n", "Record", "Offset", "Number", "Length");
    for (std::size_t i = 0; i < content.records.size(); ++i) {
        const ContentRecord& record = content.records[i];
        text += printed("  %8zu  %8zu  %-6s  %6zu  %s\n", i + 1, record.offset,
                        record.number().c_str(), record.payload.size(), record.meaning().c_str());
    }
    if (!content.trouble.empty()) {
        text += "  Not whole: " + content.trouble + "\n";
    }
    return text;
}

std::string shown_as_json(const std::string& path, const FirmwareContent& content) {
    nlohmann::ordered_json json;
    json["file"] = path;
    json["whole"] = content.trouble.empty();
    if (!content.trouble.empty()) {
        json["trouble"] = content.trouble;
    }
    if (content.product >= 0) {
        json["product"] = four_digits(content.product);
    }
    if (content.level >= 0) {
        json["level"] = level_text(content.level);
    }
    json["version_digit"] = content.version_digit;
    json["component"] = content.component;
    json["build"] = content.build;
    json["type"] = described_type(content.type);
    json["control"] = described_control(content.control);
    if (content.name) {
        json["name"] = *content.name;
    }
    json["image_bytes"] = content.image_size();
    json["image_records"] = content.image_records();
    if (content.checksum) {
        json["checksum"] = four_digits(*content.checksum);
    }
    json["right_checksum"] = four_digits(content.right_checksum);
    json["records"] = nlohmann::ordered_json::array();
    for (const ContentRecord& record : content.records) {
        json["records"].push_back({{"offset", record.offset},
                                   {"tag", record.tag},
                                   {"value", record.value},
                                   {"length", record.payload.size()},
                                   {"meaning", record.meaning()}});
    }
    constexpr int indent = 2;
    // A path or name that is no UTF-8 gets signs that stand for its bytes.
    return json.dump(indent, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}
