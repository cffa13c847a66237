// The summary of a firmware file, its record count, and the walk over its records.
#include "firmware/firmware_file.h"
#include "settings.h"
#include "support/check.h"
#include "support/scratch_directory.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

namespace {

using Content = std::span<const uint8_t>;

int header_number(Content content, std::size_t offset) {
    std::array<char, firmware_header_field_size + 1> text{};
    if (content.size() < offset + firmware_header_field_size) {
        return -1;
    }
    std::memcpy(text.data(), content.data() + offset, firmware_header_field_size);
    unsigned int number = 0;
    // NOLINTNEXTLINE(cert-err34-c): the file format's own conversion
    std::sscanf(text.data(), "%x", &number);
    return static_cast<int>(number);
}

/// The records as the length bytes cut the file.
struct Walk {
    int records = 0;
    std::size_t body_bytes = 0;
    bool has_end_mark = false;
    std::size_t end = firmware_header_size;  ///< behind the last record or the end mark
};

Walk walk_over(Content content) {
    Walk walk;
    while (walk.end < content.size() && content[walk.end] != 0) {
        const std::size_t wanted = content[walk.end] + 3U;
        const std::size_t body = std::min(wanted, content.size() - walk.end - 1);
        ++walk.records;
        walk.body_bytes += body;
        walk.end += 1 + body;
    }
    if (walk.end < content.size()) {
        walk.has_end_mark = true;
        ++walk.end;
    }
    return walk;
}

void check_record(const FirmwareRecord& record, RecordResult result) {
    const bool whole = result == RecordResult::whole;
    check(whole ? record.body_size == record.needed_body_size()
                : record.body_size < record.needed_body_size(),
          "a record is whole when its body is");
    check(record.payload().size() == static_cast<std::size_t>(record.length()),
          "the payload is as long as the length byte says");
    check(record.component() >= 0 && record.component() <= 15, "a component has four bits");
    const int version = inline_version(record);
    check(version >= -1 && version <= 0xFFFF, "an in-line version has 16 bits");
}

void check_walk(const std::string& path, Content content) {
    const Walk expected = walk_over(content);
    const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "rb"), std::fclose);
    check(file != nullptr && std::fseek(file.get(), firmware_header_size, SEEK_SET) == 0,
          "the file can be read");
    FirmwareRecordReader reader(file.get());
    FirmwareRecord record;
    Walk walk;
    RecordResult result = reader.next(record);
    while (result == RecordResult::whole || result == RecordResult::short_body) {
        check_record(record, result);
        check(std::equal(record.read_bytes().begin(), record.read_bytes().end(),
                         content.begin() + static_cast<std::ptrdiff_t>(walk.end)),
              "a record's bytes are the file's");
        ++walk.records;
        walk.body_bytes += static_cast<std::size_t>(record.body_size);
        walk.end += 1 + static_cast<std::size_t>(record.body_size);
        result = reader.next(record);
    }
    check(walk.records == expected.records, "the walk finds every record");
    check(walk.body_bytes == expected.body_bytes, "the records hold all bytes");
    check((result == RecordResult::end_mark) == expected.has_end_mark, "the end mark is found");
    if (expected.has_end_mark) {
        std::array<std::uint8_t, firmware_checksum_size> checksum{};
        const auto left = static_cast<int>(std::min<std::size_t>(content.size() - expected.end, 2));
        check(reader.read_checksum(checksum) == left, "the checksum is what follows");
    }
    check(count_download_lines(path.c_str()) == expected.records, "the count is the walk's");
}

void check_summary(const char* path, Content content, int prefers_record_level) {
    use_information_record_ec_level = prefers_record_level;
    int product_id = 0;
    int version = 0;
    int component = 0;
    int ec_level = 0;
    int type = 0;
    int build_level = 0;
    int method = 0;
    check(read_file_info(path, product_id, version, component, ec_level, type, build_level,
                         method) == 0,
          "a file that is there has a summary");
    check(product_id == header_number(content, 0), "the product ID is the header's");
    const int header_level = header_number(content, firmware_header_field_size);
    check(ec_level == header_level || (prefers_record_level == 1 && header_level >= 1 &&
                                       ec_level >= 0 && ec_level <= 0xFFFF),
          "the level is the header's, or one of 16 bits when the records' is asked for");
    check(version >= -'0' && version <= 255 - '0', "the version is a character's");
    check(component >= 0 && component <= 255, "the component is a byte's");
    check(build_level >= 0 && build_level <= 255, "the build level is a byte's");
    check(method == VERSION_INCREASING || method == VERSION_RANDOM, "the method is one of two");
    check((type >= FILE_TYPE_UNSPECIFIED && type <= FILE_TYPE_FONT) || type == FILE_TYPE_UNKNOWN,
          "the type is one of the table's");
    check(header_level >= 1 || (component == 0 && build_level == 0),
          "a file without a level names no component");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const Content content(data, size);
    const std::string path = write_scratch_file("image.dat", content);
    const std::string plain_path = scratch_directory() + "/image";
    static_cast<void>(std::rename(path.c_str(), plain_path.c_str()));
    check_summary(plain_path.c_str(), content, 0);
    static_cast<void>(std::rename(plain_path.c_str(), path.c_str()));
    check_summary(path.c_str(), content, 1);
    check_walk(path, content);
    return 0;
}
