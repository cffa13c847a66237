#include "firmware/component_text.h"

#include <gtest/gtest.h>

TEST(ComponentText, BuildLevelIsASuffixWhenThereIsOne) {
    EXPECT_STREQ(build_suffix(1).text, ".01");
    EXPECT_STREQ(build_suffix(0xAB).text, ".ab");
    EXPECT_STREQ(build_suffix(0xFF).text, ".ff");
    EXPECT_STREQ(build_suffix(0).text, "");
    EXPECT_STREQ(build_suffix(-1).text, "");
}

TEST(ComponentText, LevelIsHighByteLowByteAndBuild) {
    EXPECT_STREQ(ec_text(0x0105, 0).text, "01.05.00");
    EXPECT_STREQ(ec_text(0xFFFE, 0xAB).text, "ff.fe.ab");
    EXPECT_STREQ(ec_text(0, 0).text, "00.00.00");
}

TEST(ComponentText, NumbersTooLargeKeepTheirLowBytes) {
    EXPECT_STREQ(ec_text(0x12345678, 0x1234).text, "56.78.34");
    EXPECT_STREQ(ec_text(-1, -1).text, "ff.ff.ff");
    EXPECT_STREQ(build_suffix(0x1234).text, ".34");
}

TEST(ComponentText, NamesATypeInTheColumnsOfDevicesAndFilesAndAsAWord) {
    struct Row {
        int type;
        const char* device;
        const char* file;
        const char* word;
    };
    for (const Row& row :
         {Row{0, "UNK", "UNS", "Unspecified"}, Row{1, "FW", "FW", "Firmware"},
          Row{2, "CFG", "CFG", "Configuration"}, Row{3, "FNT", "FON", "Font"},
          Row{4, "UNK", "UNK", "Unknown(04)"}, Row{-1, "UNK", "UNK", "Unknown(ffffffff)"}}) {
        EXPECT_STREQ(device_type_text(row.type), row.device) << row.type;
        EXPECT_STREQ(file_type_text(row.type), row.file) << row.type;
        EXPECT_EQ(type_word(row.type), row.word) << row.type;
    }
}

TEST(ComponentText, NamesControlInAColumnAndAsAWord) {
    EXPECT_STREQ(control_text(0), "Increasing");
    EXPECT_STREQ(control_text(1), "Random");
    EXPECT_STREQ(control_text(2), "");
    EXPECT_EQ(control_word(0), "Increasing");
    EXPECT_EQ(control_word(1), "Random");
    EXPECT_EQ(control_word(0x1F), "Unknown(1f)");
}
