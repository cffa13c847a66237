#include "firmware/version_text.h"

#include <gtest/gtest.h>

TEST(VersionText, BuildLevelIsASuffixWhenThereIsOne) {
    EXPECT_STREQ(build_suffix(1).text, ".01");
    EXPECT_STREQ(build_suffix(0xAB).text, ".ab");
    EXPECT_STREQ(build_suffix(0xFF).text, ".ff");
    EXPECT_STREQ(build_suffix(0).text, "");
    EXPECT_STREQ(build_suffix(-1).text, "");
}

TEST(VersionText, LevelIsHighByteLowByteAndBuild) {
    EXPECT_STREQ(ec_text(0x0105, 0).text, "01.05.00");
    EXPECT_STREQ(ec_text(0xFFFE, 0xAB).text, "ff.fe.ab");
    EXPECT_STREQ(ec_text(0, 0).text, "00.00.00");
}

TEST(VersionText, NumbersTooLargeKeepTheirLowBytes) {
    EXPECT_STREQ(ec_text(0x12345678, 0x1234).text, "56.78.34");
    EXPECT_STREQ(ec_text(-1, -1).text, "ff.ff.ff");
    EXPECT_STREQ(build_suffix(0x1234).text, ".34");
}
