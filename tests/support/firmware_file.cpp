#include "support/firmware_file.h"

#include "common/image_checksum.h"
#include "support/firmware_bytes.h"
#include "support/hexadecimal.h"

#include <cstdio>

namespace {

using Payload = std::vector<std::uint8_t>;

std::uint8_t low_byte(int value) {
    return static_cast<std::uint8_t>(value & 0xFF);
}

std::uint8_t high_byte(int value) {
    return low_byte(value >> 8);
}

std::string text_of(const Payload& bytes) {
    return {bytes.begin(), bytes.end()};
}

std::string record(std::uint8_t tag, int value, const Payload& payload) {
    return FirmwareBytes("").record(tag, static_cast<unsigned int>(value), payload).bytes();
}

}  // namespace

std::vector<std::string> FirmwareFile::records() const {
    const int number = static_cast<int>(std::stoul(level, nullptr, 16));
    const int flags = type * 2 + (random ? 1 : 0);
    std::vector<std::string> all = {record(0xFF, 0, {low_byte(component)})};
    if (extended_list) {
        all.push_back(record(0xFF, 2,
                             {low_byte(component), low_byte(number), high_byte(number),
                              low_byte(flags), low_byte(build)}));
    }
    for (int i = 0; i < data_records; ++i) {
        Payload payload;
        for (int k = 0; k < 8; ++k) {
            payload.push_back(low_byte(i * 31 + k * 7 + number));
        }
        all.push_back(record(low_byte(component << 4), i, payload));
    }
    all.insert(all.end(), further_records.begin(), further_records.end());
    return all;
}

std::string FirmwareFile::checksum() const {
    ImageChecksum sum(static_cast<std::uint16_t>(product));
    for (const std::string& one : records()) {
        const std::vector<std::uint8_t> body(one.begin() + 1, one.end());
        sum.add_record(body);
    }
    const int value = right_checksum ? sum.value() : sum.value() ^ 0x0001;
    return text_of({high_byte(value), low_byte(value)});
}

std::string FirmwareFile::body() const {
    std::string bytes;
    for (const std::string& one : records()) {
        bytes += one;
    }
    return bytes + '\0' + checksum();
}

std::string FirmwareFile::header() const {
    char digits[16];
    snprintf(digits, sizeof(digits), "%04x", product);
    return digits + level;
}

std::vector<std::string> FirmwareFile::messages() const {
    std::vector<std::string> all;
    for (const std::string& one : records()) {
        all.push_back(record_message(one));
    }
    all.push_back(checksum_message(checksum()));
    return all;
}

std::string record_message(const std::string& record) {
    const int length = static_cast<unsigned char>(record[0]);
    const int count = length + 6;
    return to_hex(text_of({low_byte(count), high_byte(count), 0x02, 0x00})) + to_hex(record);
}

std::string checksum_message(const std::string& checksum) {
    return "0500020000" + to_hex(checksum);
}
