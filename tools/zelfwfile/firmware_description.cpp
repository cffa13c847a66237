#include "zelfwfile/firmware_description.h"

#include "common/toml_table.h"
#include "journal/file_handle.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <string_view>

namespace {

using zelf::TomlTable;

constexpr std::size_t longest_text = 4096;
constexpr int default_record_size = 64;
constexpr int last_component = 14;
/// The value of a download record has 16 bits and must not come twice.
constexpr std::size_t most_records = 65536;

constexpr std::array<std::string_view, 10> description_keys{
    "product", "level",   "component",   "build",    "name",
    "type",    "control", "information", "checksum", "data"};
constexpr std::array<std::string_view, 4> data_keys{"hex", "image", "pattern", "record_size"};

template <typename Value>
struct Word {
    std::string_view word;
    Value value;
};

constexpr std::array<Word<FirmwareFileType>, 4> type_words{{
    {"unspecified", FILE_TYPE_UNSPECIFIED},
    {"firmware", FILE_TYPE_FIRMWARE},
    {"configuration", FILE_TYPE_CONFIGURATION},
    {"font", FILE_TYPE_FONT},
}};

constexpr std::array<Word<VersionMethod>, 2> control_words{{
    {"increasing", VERSION_INCREASING},
    {"random", VERSION_RANDOM},
}};

constexpr std::array<Word<InformationRecord>, 8> information_words{{
    {"component-list", InformationRecord::component_list},
    {"version-list", InformationRecord::version_list},
    {"extended-list", InformationRecord::extended_list},
    {"name", InformationRecord::name},
    {"version", InformationRecord::version},
    {"version-with-build", InformationRecord::version_with_build},
    {"inline-version", InformationRecord::inline_version},
    {"inline-version-text", InformationRecord::inline_version_text},
}};

/// The value of `word`; one that is none of the table's is refused with the words that are.
template <typename Value, std::size_t size>
Value value_of(const TomlTable& table, std::string_view key, const std::string& word,
               const std::array<Word<Value>, size>& words) {
    std::string choices;
    for (const Word<Value>& row : words) {
        if (row.word == word) {
            return row.value;
        }
        choices += (choices.empty() ? "\"" : ", \"") + std::string(row.word) + "\"";
    }
    table.fail(key, "\"" + std::string(key) + "\" must be one of " + choices);
}

template <typename Value, std::size_t size>
std::string word_of(Value value, const std::array<Word<Value>, size>& words) {
    const auto* found = std::find_if(
        words.begin(), words.end(), [value](const Word<Value>& row) { return row.value == value; });
    return found == words.end() ? "unknown" : std::string(found->word);
}

int digit_value(char digit) {
    constexpr std::string_view digits = "0123456789abcdef";
    const char lower = digit >= 'A' && digit <= 'F' ? static_cast<char>(digit - 'A' + 'a') : digit;
    const std::size_t value = digits.find(lower);
    return value == std::string_view::npos ? -1 : static_cast<int>(value);
}

/// Two hexadecimal digits at `at`, -1 when they are none.
int byte_at(std::string_view text, std::size_t at) {
    if (at + 2 > text.size()) {
        return -1;
    }
    const int high = digit_value(text[at]);
    const int low = digit_value(text[at + 1]);
    return high < 0 || low < 0 ? -1 : high * 16 + low;
}

int read_level(const TomlTable& table) {
    const std::string text = table.required_text("level", longest_text);
    const int major = byte_at(text, 0);
    const int minor = byte_at(text, 3);
    if (text.size() != 5 || text[2] != '.' || major < 0 || minor < 0) {
        table.fail("level", "\"level\" must be two hexadecimal bytes, as in \"01.05\"");
    }
    if (major + minor == 0) {
        table.fail("level", "\"level\" must be above 00.00: a file without a level has no records");
    }
    return major * 256 + minor;
}

std::vector<InformationRecord> read_information(const TomlTable& table, const std::string& name) {
    std::vector<InformationRecord> records;
    if (!table.has("information")) {
        records = {InformationRecord::component_list, InformationRecord::extended_list};
        if (!name.empty()) {
            records.push_back(InformationRecord::name);
        }
        return records;
    }
    for (const std::string& word : table.texts("information")) {
        records.push_back(value_of(table, "information", word, information_words));
    }
    if (name.empty() &&
        std::find(records.begin(), records.end(), InformationRecord::name) != records.end()) {
        table.fail("information", "\"information\" asks for a name record, but there is no name");
    }
    return records;
}

std::vector<std::uint8_t> parse_record(const TomlTable& data, const std::string& text,
                                       std::size_t number) {
    std::vector<std::uint8_t> bytes;
    for (std::size_t at = 0; at < text.size();) {
        if (text[at] == ' ') {
            ++at;
            continue;
        }
        const int byte = byte_at(text, at);
        if (byte < 0) {
            data.fail("hex", "record " + std::to_string(number) + " of \"hex\", character " +
                                 std::to_string(at + 1) + ": not two hexadecimal digits");
        }
        bytes.push_back(static_cast<std::uint8_t>(byte));
        at += 2;
    }
    if (bytes.empty() || bytes.size() > firmware_record_max_payload) {
        data.fail("hex", "record " + std::to_string(number) + " of \"hex\" has " +
                             std::to_string(bytes.size()) + " bytes, it must have 1 to 255");
    }
    return bytes;
}

std::vector<std::uint8_t> read_image(const TomlTable& data, const std::string& path) {
    constexpr std::size_t largest = most_records * firmware_record_max_payload;
    const FileHandle file = open_regular_file(path.c_str());
    if (file == nullptr) {
        data.fail("image", "\"" + path + "\" cannot be opened, or is no regular file");
    }
    std::vector<std::uint8_t> bytes(largest + 1);
    bytes.resize(fread(bytes.data(), 1, bytes.size(), file.get()));
    if (ferror(file.get()) != 0) {
        data.fail("image", "\"" + path + "\" cannot be read");
    }
    if (bytes.empty() || bytes.size() > largest) {
        data.fail("image", "\"" + path + "\" is " + (bytes.empty() ? "empty" : "too large"));
    }
    return bytes;
}

/// Bytes that look like an image, and are the same for the same description.
std::vector<std::uint8_t> pattern(const FirmwareDescription& description, std::size_t size) {
    auto state = static_cast<std::uint32_t>(description.product) << 16U ^
                 static_cast<std::uint32_t>(description.level) ^
                 static_cast<std::uint32_t>(description.build) << 12U ^
                 static_cast<std::uint32_t>(description.component) << 27U;
    std::vector<std::uint8_t> bytes(size);
    for (std::uint8_t& byte : bytes) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<std::uint8_t>(state >> 24U);
    }
    return bytes;
}

std::vector<std::vector<std::uint8_t>> cut_into_records(const std::vector<std::uint8_t>& bytes,
                                                        std::size_t record_size) {
    std::vector<std::vector<std::uint8_t>> records;
    for (std::size_t at = 0; at < bytes.size(); at += record_size) {
        const std::size_t size = std::min(record_size, bytes.size() - at);
        const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(at);
        records.emplace_back(first, first + static_cast<std::ptrdiff_t>(size));
    }
    return records;
}

/// Reads the `[data]` table, which gives the image in one of three ways.
void read_records(const TomlTable& data, const std::string& path,
                  FirmwareDescription& description) {
    const std::vector<std::string> hex = data.texts("hex");
    const auto image = data.text("image", longest_text);
    const auto count = data.integer("pattern", 1, most_records);
    const auto record_size = static_cast<std::size_t>(
        data.integer("record_size", 1, firmware_record_max_payload).value_or(default_record_size));
    if ((data.has("hex") ? 1 : 0) + (image ? 1 : 0) + (count ? 1 : 0) != 1) {
        data.fail("", "[data] must have one of \"hex\", \"image\" and \"pattern\"");
    }
    if (image) {
        const auto beside = std::filesystem::path(path).parent_path() / *image;
        description.records = cut_into_records(read_image(data, beside.string()), record_size);
    } else if (count) {
        const std::size_t size = static_cast<std::size_t>(*count) * record_size;
        description.records = cut_into_records(pattern(description, size), record_size);
    } else {
        for (const std::string& text : hex) {
            description.records.push_back(parse_record(data, text, description.records.size() + 1));
        }
    }
    if (description.records.empty() || description.records.size() > most_records) {
        data.fail(image ? "image" : "hex", "the image has " +
                                               std::to_string(description.records.size()) +
                                               " records, it must have 1 to 65536");
    }
}

}  // namespace

std::vector<InformationRecord> all_information_records() {
    std::vector<InformationRecord> all;
    all.reserve(std::size(information_words));
    for (const Word<InformationRecord>& row : information_words) {
        all.push_back(row.value);
    }
    return all;
}

std::string described_type(int type) {
    return word_of(static_cast<FirmwareFileType>(type), type_words);
}

std::string described_control(int control) {
    return word_of(static_cast<VersionMethod>(control), control_words);
}

std::string information_word(InformationRecord record) {
    return word_of(record, information_words);
}

FirmwareDescription read_firmware_description(const std::string& path) {
    const toml::table parsed = zelf::parse_toml_file(path);
    const TomlTable table(path, parsed);
    table.know_only({description_keys});
    const auto data = table.table("data");
    if (data) {
        data->know_only({data_keys});
    }
    FirmwareDescription description;
    description.product = static_cast<int>(table.required_integer("product", 1, 0xFFFF));
    description.level = read_level(table);
    description.component =
        static_cast<int>(table.integer("component", 0, last_component).value_or(0));
    description.build = static_cast<int>(table.integer("build", 0, 255).value_or(0));
    description.name = table.text("name", component_name_size).value_or("");
    description.type =
        value_of(table, "type", table.text("type", longest_text).value_or("firmware"), type_words);
    description.control =
        value_of(table, "control", table.text("control", longest_text).value_or("increasing"),
                 control_words);
    description.information = read_information(table, description.name);
    if (const auto checksum = table.integer("checksum", 0, 0xFFFF)) {
        description.checksum = static_cast<int>(*checksum);
    }
    if (!data) {
        table.fail("data", "the table [data] is missing");
    }
    read_records(*data, path, description);
    return description;
}
