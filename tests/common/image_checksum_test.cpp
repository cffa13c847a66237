#include "common/image_checksum.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

namespace {

using Record = std::vector<std::uint8_t>;

std::uint16_t checksum(std::uint16_t product, const std::vector<Record>& records) {
    ImageChecksum sum(product);
    for (const Record& record : records) {
        EXPECT_TRUE(sum.add_record(record));
    }
    return sum.value();
}

}  // namespace

TEST(ImageChecksum, BeginsWithTheProductIdInLowerCase) {
    // CRC-16/CCITT-FALSE of "3c35" and of "00af", from another implementation.
    EXPECT_EQ(checksum(0x3C35, {}), 0xC7FE);
    EXPECT_EQ(checksum(0x00AF, {}), 0x59F7);
}

TEST(ImageChecksum, ContinuesOverLengthTagValueAndPayload) {
    // "3c35" 02 05 01 02 AA BB: the tag's component nibble counts as 0.
    EXPECT_EQ(checksum(0x3C35, {{0x35, 0x01, 0x02, 0xAA, 0xBB}}), 0xD249);
}

TEST(ImageChecksum, IgnoresTheComponentOfDownloadRecords) {
    EXPECT_EQ(checksum(0x3C35, {{0x10, 0, 0, 1}}), checksum(0x3C35, {{0x70, 0, 0, 1}}));
    EXPECT_NE(checksum(0x3C35, {{0x10, 0, 0, 1}}), checksum(0x3C35, {{0x11, 0, 0, 1}}));
}

TEST(ImageChecksum, IgnoresTheComponentOfListRecords) {
    EXPECT_EQ(checksum(0x3C35, {{0xFF, 0, 1, 0x21}}), checksum(0x3C35, {{0xFF, 0, 1, 0x2E}}));
    EXPECT_NE(checksum(0x3C35, {{0xFF, 0, 1, 0x21}}), checksum(0x3C35, {{0xFF, 0, 1, 0x31}}));
    EXPECT_NE(checksum(0x3C35, {{0xFF, 1, 1, 0x21}}), checksum(0x3C35, {{0xFF, 1, 1, 0x2E}}));
}

TEST(ImageChecksum, KeepsTheTagOfOtherInformationRecords) {
    EXPECT_NE(checksum(0x3C35, {{0xF1, 0, 0, 1}}), checksum(0x3C35, {{0x01, 0, 0, 1}}));
    EXPECT_NE(checksum(0x3C35, {{0xF1, 0, 0, 0x21}}), checksum(0x3C35, {{0xF1, 0, 0, 0x22}}));
}

TEST(ImageChecksum, RefusesRecordsThatNoFileCanHold) {
    ImageChecksum sum(0x3C35);
    const std::uint16_t before = sum.value();
    EXPECT_FALSE(sum.add_record(Record{0x10, 0, 0}));
    EXPECT_FALSE(sum.add_record(Record(259, 0)));
    EXPECT_EQ(sum.value(), before);
    EXPECT_TRUE(sum.add_record(Record(258, 0)));
}
