// zelfwfile takes files apart: show, diff and extract.
#include "support/firmware_bytes.h"
#include "support/temporary_directory.h"
#include "zelfwfile/firmware_content.h"
#include "zelfwfile/firmware_description.h"
#include "zelfwfile/firmware_diff.h"
#include "zelfwfile/firmware_extract.h"
#include "zelfwfile/firmware_image.h"
#include "zelfwfile/firmware_show.h"
#include "zelfwfile_run.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <random>

using nlohmann::json;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

FirmwareDescription small_font() {
    FirmwareDescription description;
    description.product = 0x3C02;
    description.level = 0x0105;
    description.component = 2;
    description.build = 7;
    description.name = "Boot block";
    description.type = FILE_TYPE_FONT;
    description.control = VERSION_RANDOM;
    description.information = {InformationRecord::component_list, InformationRecord::extended_list,
                               InformationRecord::name};
    description.records = {{1, 2, 3}, {4, 5, 6}, {7}};
    return description;
}

std::string bytes_of(const FirmwareDescription& description) {
    const auto bytes = firmware_file_bytes(description);
    return {bytes.begin(), bytes.end()};
}

class ZelfwfileContent : public testing::Test {
  protected:
    std::string path(const std::string& name) const { return directory_.path(name); }
    std::string file(const std::string& name, const std::string& bytes) const {
        write_file(path(name), bytes);
        return path(name);
    }
    FirmwareContent content(const std::string& bytes) const {
        return read_firmware_content(file("content.dat", bytes));
    }
    std::string differences(const std::string& one, const std::string& other) const {
        return firmware_differences(content(one), content(other));
    }
    /// What "make" makes of what "extract" wrote.
    std::string made_again(const std::string& bytes) const {
        const ExtractedFirmware extracted = extract_firmware(content(bytes), "again.bin");
        file("again.bin", std::string(extracted.image.begin(), extracted.image.end()));
        return bytes_of(read_firmware_description(file("again.toml", extracted.description)));
    }
    std::string refusal(const std::string& bytes) const {
        try {
            extract_firmware(content(bytes), "image.bin");
        } catch (const std::exception& error) {
            return error.what();
        }
        return "extracted";
    }

    TemporaryDirectory directory_;
};

/// A description as a maker may write one; the same for the same seed.
FirmwareDescription random_description(unsigned int seed) {
    std::mt19937 random(seed);
    const auto below = [&random](unsigned int limit) { return static_cast<int>(random() % limit); };
    FirmwareDescription description;
    description.product = 1 + below(0xFFFF);
    description.level = 1 + below(0xFFFF);
    description.component = below(15);
    description.build = below(256);
    description.type = static_cast<FirmwareFileType>(below(4));
    description.control = static_cast<VersionMethod>(below(2));
    description.name = std::string(static_cast<std::size_t>(below(32)), '\0');
    for (char& c : description.name) {
        c = static_cast<char>(below(128));
    }
    description.name += "n";
    for (const InformationRecord record : all_information_records()) {
        if (below(2) == 0) {
            description.information.push_back(record);
        }
    }
    const bool is_even = below(2) == 0;
    const int record_size = 1 + below(255);
    description.records.resize(1 + static_cast<std::size_t>(below(20)));
    for (auto& record : description.records) {
        record.resize(static_cast<std::size_t>(is_even ? record_size : 1 + below(255)));
        for (std::uint8_t& byte : record) {
            byte = static_cast<std::uint8_t>(below(256));
        }
    }
    if (below(4) == 0) {
        description.checksum = below(0x10000);
    }
    return description;
}

}  // namespace

TEST_F(ZelfwfileContent, ExtractedRandomFilesAreMadeAgainByteForByte) {
    for (unsigned int seed = 0; seed < 300; ++seed) {
        const std::string bytes = bytes_of(random_description(seed));
        ASSERT_EQ(made_again(bytes), bytes) << "seed " << seed;
    }
}

TEST_F(ZelfwfileContent, ExtractedFileWithEachInformationRecordIsMadeAgain) {
    FirmwareDescription description = small_font();
    description.type = FILE_TYPE_CONFIGURATION;
    for (const InformationRecord record : all_information_records()) {
        description.information = {record};
        const std::string bytes = bytes_of(description);
        EXPECT_EQ(made_again(bytes), bytes) << information_word(record);
    }
    description.information.clear();
    EXPECT_EQ(made_again(bytes_of(description)), bytes_of(description));
}

TEST_F(ZelfwfileContent, ExtractedDemonstrationIsMadeAgainByTheProgram) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(DEMO_FIRMWARE_DIR)) {
        const std::string stem = entry.path().stem().string();
        const std::string made = "'" + path("out/" + stem);
        const ToolRun extracted =
            zelfwfile("extract '" + entry.path().string() + "' -o '" + path("out") + "'");
        EXPECT_EQ(extracted.code, 0) << extracted.output;
        EXPECT_EQ(zelfwfile("make " + made + ".toml'").code, 0);
        const ToolRun same = zelfwfile("diff " + made + ".dat' '" + entry.path().string() + "'");
        EXPECT_EQ(same.code, 0) << stem;
        EXPECT_THAT(same.output, IsEmpty());
        ++count;
    }
    EXPECT_GT(count, 0);
}

TEST_F(ZelfwfileContent, FileThatNoDescriptionExpressesIsRefusedWithTheReason) {
    const std::string good = bytes_of(small_font());
    FirmwareDescription other = small_font();
    std::string upper = good, behind = good + "x", cut = good.substr(0, good.size() - 1);
    upper[1] = 'C';
    std::string number = good;
    number[good.size() - 3 - 2] = 9;  // of the last record
    other.component = 3;
    std::string component = good;
    component[12] = 3;  // in the component list
    other.records.clear();
    const std::pair<std::string, std::string> cases[] = {
        {upper, "offset 0: a header that is not eight lower-case hexadecimal digits"},
        {behind, "something stands behind the checksum"},
        {cut, "the file ends inside the checksum"},
        {number, "record 6 (200009) is not data record 2 of component 2"},
        {component, "record 1 (ff0000) is not as the other records have it"},
        {bytes_of(other), "there is no data record"},
    };
    for (const auto& [bytes, reason] : cases) {
        EXPECT_THAT(refusal(bytes),
                    AllOf(HasSubstr("no description can express this: "), EndsWith(reason)));
    }
    FirmwareDescription name = small_font();
    name.name = "\xff";
    EXPECT_THAT(refusal(bytes_of(name)), EndsWith("a name that is no UTF-8"));
}

TEST_F(ZelfwfileContent, ExtractNeverReplacesTheFileItself) {
    const std::string source = file("main.bin", bytes_of(small_font()));
    const ToolRun result = zelfwfile("extract '" + source + "' -o '" + path("") + "'");
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.output, source + ": would be replaced by what is extracted from it\n");
}

TEST_F(ZelfwfileContent, ShowTellsWhatTheFileHolds) {
    const ToolRun result = zelfwfile("show '" + file("a.dat", bytes_of(small_font())) + "'");
    EXPECT_EQ(result.code, 0);
    for (const char* line :
         {"Product    3c02\n", "Level      01.05\n", "Version    1\n", "Component  2\n",
          "Build      07\n", "Type       font\n", "Control    random\n",
          "Name       \"Boot block\"\n", "Image      7 bytes in 3 records\n", ", right\n",
          "         2        13  ff0002       5  extended list\n",
          "         6        50  200002       1  data\n"}) {
        EXPECT_THAT(result.output, HasSubstr(line));
    }
}

TEST_F(ZelfwfileContent, ShowNamesAWrongChecksumAndWhatIsNotWhole) {
    FirmwareDescription description = small_font();
    description.checksum = 0x1234;
    const std::string bytes = bytes_of(description);
    const ToolRun wrong = zelfwfile("show '" + file("a.dat", bytes) + "'");
    EXPECT_EQ(wrong.code, 0);
    EXPECT_THAT(wrong.output, HasSubstr("Checksum   1234, wrong: it must be "));
    const ToolRun cut =
        zelfwfile("show '" + file("b.dat", bytes.substr(0, bytes.size() - 4)) + "'");
    EXPECT_EQ(cut.code, 1);
    EXPECT_THAT(cut.output, HasSubstr("  Not whole: offset 50: the record is cut short\n"));
    EXPECT_EQ(zelfwfile("show '" + path("none") + "'").code, 1);
}

TEST_F(ZelfwfileContent, ShownJsonHoldsTheSame) {
    FirmwareDescription description = small_font();
    description.name = "Boot\x1b\"\xff";
    const ToolRun result = zelfwfile("show --json '" + file("a.dat", bytes_of(description)) + "'");
    EXPECT_EQ(result.code, 0);
    const json shown = json::parse(result.output);
    EXPECT_EQ(shown["product"], "3c02");
    EXPECT_EQ(shown["type"], "font");
    EXPECT_EQ(shown["checksum"], shown["right_checksum"]);
    EXPECT_EQ(shown["name"], "Boot\x1b\"\xef\xbf\xbd");
    ASSERT_EQ(shown["records"].size(), 6U);
    EXPECT_EQ(shown["records"][1], json::parse(R"({"offset": 13, "tag": 255, "value": 2,
        "length": 5, "meaning": "extended list"})"));
}

TEST_F(ZelfwfileContent, NameIsShownWithoutControlCharacters) {
    EXPECT_EQ(quoted_text("a\"\\\x1b\xff\xc3\xa9\xc2\x9b"),
              "\"a\\\"\\\\\\x1b\\xff\xc3\xa9\\xc2\\x9b\"");
}

TEST_F(ZelfwfileContent, DiffTellsRecordsAndBytes) {
    FirmwareDescription other = small_font();
    other.level = 0x0106;
    other.records[1] = {4, 9, 6, 8};
    EXPECT_THAT(differences(bytes_of(small_font()), bytes_of(other)),
                AllOf(HasSubstr("header: \"3c020105\", \"3c020106\"\n"),
                      HasSubstr("record 2 (ff0002, extended list): byte 2: 05, 06\n"),
                      HasSubstr("record 5 (200001, data): byte 2: 05, 09; length: 3, 4\n"),
                      HasSubstr("checksum: ")));
    EXPECT_EQ(differences(bytes_of(small_font()), bytes_of(small_font())), "");
}

TEST_F(ZelfwfileContent, DiffFindsRecordsThatOneFileLacks) {
    FirmwareDescription other = small_font();
    other.information.erase(other.information.begin() + 1);
    other.records.pop_back();
    const std::string there = differences(bytes_of(small_font()), bytes_of(other));
    EXPECT_THAT(there, HasSubstr("record 2 (ff0002, extended list, 5 bytes): only in the first"));
    EXPECT_THAT(there, HasSubstr("record 6 (200002, data, 1 bytes): only in the first"));
    EXPECT_THAT(differences(bytes_of(other), bytes_of(small_font())),
                AllOf(HasSubstr("record 2 (ff0002, extended list, 5 bytes): only in the second"),
                      testing::Not(HasSubstr("in the first"))));
}

TEST_F(ZelfwfileContent, DiffTellsAnyDifferenceOfAnyByte) {
    const std::string bytes = bytes_of(small_font());
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        std::string changed = bytes;
        changed[at] = static_cast<char>(changed[at] ^ 0x20);
        EXPECT_NE(differences(bytes, changed), "") << at;
        EXPECT_NE(differences(bytes, bytes.substr(0, at)), "") << at;
    }
}

TEST_F(ZelfwfileContent, DiffShowsTheFirstBytesAndCountsTheOthers) {
    FirmwareDescription one = small_font(), other = small_font();
    one.records = {zelf::Bytes(20, 1)};
    other.records = {zelf::Bytes(20, 2)};
    EXPECT_THAT(differences(bytes_of(one), bytes_of(other)),
                HasSubstr("byte 8: 01, 02; 12 bytes more\n"));
}

TEST_F(ZelfwfileContent, DiffEndsWithTwoWhenAFileCannotBeRead) {
    const std::string one = "'" + file("a.dat", bytes_of(small_font())) + "' ";
    FirmwareDescription description = small_font();
    description.build = 8;
    EXPECT_EQ(zelfwfile("diff " + one + "'" + file("b.dat", bytes_of(description)) + "'").code, 1);
    EXPECT_EQ(zelfwfile("diff " + one + one).code, 0);
    EXPECT_EQ(zelfwfile("diff " + one + "'" + path("none") + "'").code, 2);
}
