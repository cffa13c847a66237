#include "support/firmware_bytes.h"
#include "support/temporary_directory.h"
#include "zelfwfile/firmware_check.h"
#include "zelfwfile/firmware_description.h"
#include "zelfwfile/firmware_image.h"
#include "zelfwfile_run.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cctype>
#include <cstdio>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr char small[] = R"(product = 0x3C02
level = "01.05"
build = 7
component = 2
name = "Boot block"
type = "font"
control = "random"
[data]
hex = ["00 11 22", "334455", "6F"]
)";

class Zelfwfile : public testing::Test {
  protected:
    std::string description(const std::string& text) {
        return directory_.write("image.toml", text);
    }
    /// The bytes of the file that this text describes.
    std::string made(const std::string& text) {
        const auto bytes = firmware_file_bytes(read_firmware_description(description(text)));
        return {bytes.begin(), bytes.end()};
    }
    /// The message with which this text is refused, from its line number on.
    std::string refusal(const std::string& text) {
        const std::string path = description(text);
        try {
            read_firmware_description(path);
        } catch (const std::exception& error) {
            EXPECT_THAT(error.what(), StartsWith(path + ":"));
            return std::string(error.what()).substr(path.size() + 1);
        }
        return "accepted";
    }
    FirmwareVerdict verdict(const std::string& bytes) {
        return check_firmware_file(directory_.write("checked.dat", bytes));
    }
    std::vector<std::string> directory_listing() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(directory_.path())) {
            names.push_back(entry.path().filename().string());
        }
        return names;
    }

    TemporaryDirectory directory_;
};

std::string with_data(const std::string& data) {
    return "product = 0x3C02\nlevel = \"01.05\"\n[data]\n" + data;
}

/// The file's records, each with its length byte.
std::vector<std::string> records_of(const std::string& bytes) {
    std::vector<std::string> records;
    for (std::size_t at = 8; bytes[at] != 0;) {
        const std::size_t size = static_cast<unsigned char>(bytes[at]) + std::size_t{4};
        records.push_back(bytes.substr(at, size));
        at += size;
    }
    return records;
}

std::string file_of(const std::string& original, const std::vector<std::string>& records) {
    std::string bytes = original.substr(0, 8);
    for (const std::string& record : records) {
        bytes += record;
    }
    return bytes + original.substr(original.size() - 3);
}

}  // namespace

TEST_F(Zelfwfile, MakesTheBytesThatTheDescriptionGives) {
    const std::string bytes = made(small);
    const std::string expected = FirmwareBytes("3c020105")
                                     .record(0xFF, 0, {2})
                                     .record(0xFF, 2, {2, 5, 1, 0x07, 7})
                                     .text_record(0xF2, 0, "Boot block")
                                     .record(0x20, 0, {0x00, 0x11, 0x22})
                                     .record(0x20, 1, {0x33, 0x44, 0x55})
                                     .record(0x20, 2, {0x6F})
                                     .raw({0})
                                     .bytes();
    EXPECT_EQ(bytes.substr(0, bytes.size() - 2), expected);
    EXPECT_EQ(
        verdict(bytes).text,
        "OK: product 3c02, component 2, level 01.05, 6 records, 3 of them data, build 7, type "
        "font, name \"Boot block\"");
}

TEST_F(Zelfwfile, ChecksumFollowsTheRule) {
    // Product "3c02", then the records with the component's nibbles taken as 0.
    std::string covered = "3c02";
    covered += std::string("\x01\xFF\x00\x00\x00", 5);
    covered += std::string("\x02\x00\x00\x00\xAB\xCD", 6);
    unsigned int crc = 0xFFFF;
    for (const char c : covered) {
        crc ^= static_cast<unsigned int>(static_cast<unsigned char>(c)) << 8U;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 0x8000U) != 0 ? ((crc << 1U) ^ 0x1021U) & 0xFFFFU : (crc << 1U) & 0xFFFFU;
        }
    }
    const std::string bytes = made(
        "product = 0x3C02\nlevel = \"01.05\"\ncomponent = 5\n"
        "information = [\"component-list\"]\n[data]\nhex = [\"abcd\"]\n");
    EXPECT_EQ(static_cast<unsigned char>(bytes[bytes.size() - 2]), crc >> 8U);
    EXPECT_EQ(static_cast<unsigned char>(bytes[bytes.size() - 1]), crc & 0xFFU);
}

TEST_F(Zelfwfile, GivenChecksumStandsInPlaceOfTheRightOne) {
    const std::string bytes =
        made("product = 1\nlevel = \"01.05\"\nchecksum = 0x1D0F\n[data]\nhex = [\"00\"]\n");
    EXPECT_THAT(bytes, EndsWith("\x1D\x0F"));
    EXPECT_THAT(verdict(bytes).text, HasSubstr("the checksum is 1d0f, it must be "));
}

TEST_F(Zelfwfile, WritesEveryInformationRecordThatIsAskedFor) {
    const std::string bytes = made(
        "product = 0x3C02\nlevel = \"1a.05\"\nbuild = 9\ncomponent = 3\nname = \"N\"\n"
        "type = \"configuration\"\n"
        "information = [\"component-list\", \"version-list\", \"extended-list\", \"name\", "
        "\"version\", \"version-with-build\", \"inline-version\", \"inline-version-text\"]\n"
        "[data]\nhex = [\"00\"]\n");
    EXPECT_THAT(
        records_of(bytes),
        ElementsAre(std::string("\x01\xFF\x00\x00\x03", 5),
                    std::string("\x04\xFF\x00\x01\x03\x05\x1A\x01", 8),
                    std::string("\x05\xFF\x00\x02\x03\x05\x1A\x04\x09", 9),
                    std::string("\x01\xF3\x00\x00N", 5), std::string("\x02\xF3\x00\x01\x05\x1A", 6),
                    std::string("\x04\xF3\x00\x02\x05\x1A\x00\x09", 8),
                    std::string("\x02\x3F\x00\x00\x1A\x05", 6),
                    std::string("\x04\x3F\x00\x00"
                                "1a05",
                                8),
                    std::string("\x01\x30\x00\x00\x00", 5)));
    EXPECT_TRUE(verdict(bytes).whole);
}

TEST_F(Zelfwfile, UpdaterReadsBackWhatWasDescribed) {
    const std::string path = directory_.write("made.dat", made(small));
    int product = 0;
    int version = 0;
    int component = 0;
    int level = 0;
    int type = 0;
    int build = 0;
    int control = 0;
    ASSERT_EQ(
        read_file_info(path.c_str(), product, version, component, level, type, build, control), 0);
    EXPECT_EQ(product, 0x3C02);
    EXPECT_EQ(version, 1);
    EXPECT_EQ(component, 2);
    EXPECT_EQ(level, 0x0105);
    EXPECT_EQ(type, FILE_TYPE_FONT);
    EXPECT_EQ(build, 7);
    EXPECT_EQ(control, VERSION_RANDOM);
    EXPECT_EQ(count_download_lines(path.c_str()), 6);
}

TEST_F(Zelfwfile, ImageFileIsCutIntoRecordsBesideTheDescription) {
    directory_.write("main.bin", std::string("\x01\x02\x03\x04\x05", 5));
    const auto file = read_firmware_description(
        description(with_data("image = \"main.bin\"\nrecord_size = 2\n")));
    EXPECT_THAT(file.records, ElementsAre(ElementsAre(1, 2), ElementsAre(3, 4), ElementsAre(5)));
}

TEST_F(Zelfwfile, PatternIsTheSameEveryTimeAndDiffersBetweenFiles) {
    const std::string text = with_data("pattern = 40\n");
    EXPECT_EQ(made(text), made(text));
    EXPECT_EQ(records_of(made(text)).size(), 42U);
    EXPECT_EQ(records_of(made(text)).back().size(), 64U + 4);
    EXPECT_NE(records_of(made(text)).back(), records_of(made("build = 1\n" + text)).back());
    EXPECT_TRUE(verdict(made(with_data("pattern = 1000\nrecord_size = 255\n"))).whole);
}

TEST_F(Zelfwfile, WrongDescriptionsAreRefusedWithLineAndReason) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"level = \"01.05\"\n[data]\npattern = 1\n", "1: \"product\" is missing"},
        {"product = 0\nlevel = \"01.05\"\n", "1: \"product\" must be 1 to 65535"},
        {"product = \"3C02\"\n", "1: \"product\" must be a whole number"},
        {"product = 1\nlevel = \"1.5\"\n", "2: \"level\" must be two hexadecimal bytes"},
        {"product = 1\nlevel = \"01.0g\"\n", "2: \"level\" must be two hexadecimal bytes"},
        {"product = 1\nlevel = \"00.00\"\n", "2: \"level\" must be above 00.00"},
        {"product = 1\nlevel = \"01.05\"\ncomponent = 15\n", "3: \"component\" must be 0 to 14"},
        {"product = 1\nlevel = \"01.05\"\n\nbuild = 256\n", "4: \"build\" must be 0 to 255"},
        {"product = 1\nlevel = \"01.05\"\ntype = \"fnt\"\n",
         "3: \"type\" must be one of \"unspecified\", \"firmware\", \"configuration\", \"font\""},
        {"product = 1\nlevel = \"01.05\"\ncontrol = \"\"\n",
         "3: \"control\" must be one of \"increasing\", \"random\""},
        {"product = 1\nlevel = \"01.05\"\nname = \"" + std::string(33, 'n') + "\"\n",
         "3: \"name\" must have at most 32 characters"},
        {"product = 1\nlevel = \"01.05\"\ninformation = [\"list\"]\n",
         "3: \"information\" must be one of \"component-list\""},
        {"product = 1\nlevel = \"01.05\"\ninformation = [\"name\"]\n",
         "3: \"information\" asks for a name record, but there is no name"},
        {"product = 1\nlevel = \"01.05\"\nchecksum = 65536\n",
         "3: \"checksum\" must be 0 to 65535"},
        {"product = 1\nlevel = \"01.05\"\ncolour = 3\n[data]\npattern = 1\n",
         "3: unknown key \"colour\""},
        {"product = 1\nlevel = \"01.05\"\n", "1: the table [data] is missing"},
        {with_data(""), "3: [data] must have one of \"hex\", \"image\" and \"pattern\""},
        {with_data("pattern = 1\nhex = [\"00\"]\n"), "3: [data] must have one of"},
        {with_data("hex = []\n"), "4: the image has 0 records"},
        {with_data("hex = [\"00\", \"0\"]\n"),
         "4: record 2 of \"hex\", character 1: not two hexadecimal digits"},
        {with_data("hex = [\"00 zz\"]\n"), "4: record 1 of \"hex\", character 4: not two"},
        {with_data("hex = [\" \"]\n"), "4: record 1 of \"hex\" has 0 bytes"},
        {with_data("hex = [\"" + std::string(512, '0') + "\"]\n"),
         "4: record 1 of \"hex\" has 256 bytes"},
        {with_data("pattern = 0\n"), "4: \"pattern\" must be 1 to 65536"},
        {with_data("pattern = 1\nrecord_size = 256\n"), "5: \"record_size\" must be 1 to 255"},
        {with_data("image = \"none.bin\"\n"), "4: \""},
        {with_data("patern = 1\n"), "4: unknown key \"patern\""},
        {"product = 1\nlevel = \n", "2: "},
    };
    for (const auto& [text, reason] : cases) {
        EXPECT_THAT(refusal(text), StartsWith(reason)) << text;
    }
}

TEST_F(Zelfwfile, ImageThatCannotServeIsRefused) {
    directory_.write("empty.bin", "");
    EXPECT_THAT(refusal(with_data("image = \"empty.bin\"\n")), EndsWith("is empty"));
    directory_.write("large.bin", std::string(70000, 'x'));
    EXPECT_THAT(refusal(with_data("image = \"large.bin\"\nrecord_size = 1\n")),
                StartsWith("4: the image has 70000 records, it must have 1 to 65536"));
    EXPECT_THAT(refusal(with_data("image = \".\"\n")),
                EndsWith("cannot be opened, or is no regular file"));
}

TEST_F(Zelfwfile, CheckNamesTheFirstFaultWithItsOffset) {
    const auto header = [] { return FirmwareBytes("3c020105"); };
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", "offset 0: the file ends inside the header"},
        {"3c02010", "offset 7: the file ends inside the header"},
        {"3c02 105", "offset 4: the header has a character that is no hexadecimal digit"},
        {"00000105", "offset 0: the product ID is 0"},
        {"3c020000", "offset 4: the level is 00.00"},
        {"3c020105", "offset 8: the file ends without an end mark"},
        {header().end().bytes(), "offset 8: the file has no download record"},
        {header().record(0xFF, 0, {1}).end().bytes(), "offset 13: the file has no download record"},
        {header().record(0x10, 0, {1}).lying_record(9, 0x10, 1, {1, 2}).bytes(),
         "offset 13: record 1 is cut short: it needs 12 bytes behind its length byte, the file has "
         "5"},
        {header().record(0xFF, 0, {1}).record(0x20, 0, {1}).end().bytes(),
         "offset 13: record 1 is for component 2, those before it for 1"},
        {header().record(0xFF, 2, {1, 4, 1, 0, 0}).record(0x10, 0, {1}).end().bytes(),
         "offset 8: record 0 says level 01.04, the header says 01.05"},
        {header().record(0xFF, 1, {1, 5, 2, 0}).record(0x10, 0, {1}).end().bytes(),
         "offset 8: record 0 says level 02.05, the header says 01.05"},
        {header().record(0xF1, 1, {5, 3}).record(0x10, 0, {1}).end().bytes(),
         "offset 8: record 0 says level 03.05, the header says 01.05"},
        {header().record(0x1F, 0, {1, 6}).record(0x10, 0, {1}).end().bytes(),
         "offset 8: record 0 says level 01.06, the header says 01.05"},
        {header().record(0x10, 0, {1}).raw({0}).bytes(),
         "offset 14: the file ends inside the checksum"},
        {header().record(0x10, 0, {1}).raw({0, 1}).bytes(),
         "offset 15: the file ends inside the checksum"},
    };
    for (const auto& [bytes, reason] : cases) {
        const FirmwareVerdict found = verdict(bytes);
        EXPECT_FALSE(found.whole) << reason;
        EXPECT_EQ(found.text, reason);
    }
    const std::string whole = made(small);
    EXPECT_EQ(verdict(whole + "x").text,
              "offset " + std::to_string(whole.size()) + ": something stands behind the checksum");
    EXPECT_EQ(check_firmware_file(directory_.path()).text,
              "cannot be opened, or is no regular file");
    EXPECT_FALSE(check_firmware_file(directory_.path("none")).whole);
}

TEST_F(Zelfwfile, EveryFlippedBitIsFound) {
    const std::string whole = made(small);
    ASSERT_TRUE(verdict(whole).whole);
    for (std::size_t at = 0; at < whole.size(); ++at) {
        for (unsigned int bit = 0; bit < 8; ++bit) {
            std::string flipped = whole;
            flipped[at] = static_cast<char>(static_cast<unsigned char>(flipped[at]) ^ (1U << bit));
            // Upper-case and lower-case digits mean the same.
            const bool same = at < 8 && isxdigit(static_cast<unsigned char>(flipped[at])) != 0 &&
                              tolower(flipped[at]) == tolower(whole[at]);
            EXPECT_EQ(verdict(flipped).whole, same) << "byte " << at << ", bit " << bit;
        }
    }
}

TEST_F(Zelfwfile, LostRepeatedAndSwappedRecordsAreFound) {
    const std::string whole = made(small);
    const std::vector<std::string> records = records_of(whole);
    ASSERT_EQ(file_of(whole, records), whole);
    for (std::size_t i = 0; i < records.size(); ++i) {
        std::vector<std::string> changed = records;
        changed.erase(changed.begin() + static_cast<std::ptrdiff_t>(i));
        EXPECT_FALSE(verdict(file_of(whole, changed)).whole) << "lost " << i;
        changed = records;
        changed.insert(changed.begin() + static_cast<std::ptrdiff_t>(i), records[i]);
        EXPECT_FALSE(verdict(file_of(whole, changed)).whole) << "repeated " << i;
        for (std::size_t j = 0; j < i; ++j) {
            changed = records;
            std::swap(changed[i], changed[j]);
            EXPECT_FALSE(verdict(file_of(whole, changed)).whole) << "swapped " << i << ", " << j;
        }
    }
}

TEST_F(Zelfwfile, FileCutAnywhereIsNotWhole) {
    const std::string whole = made(small);
    for (std::size_t size = 0; size < whole.size(); ++size) {
        EXPECT_FALSE(verdict(whole.substr(0, size)).whole) << size;
    }
}

TEST_F(Zelfwfile, ProgramMakesAndChecksAFile) {
    const std::string path = description(small);
    const std::string out = directory_.path("out.dat");
    const ToolRun made_result = zelfwfile("make " + quoted(path) + " -o " + quoted(out));
    EXPECT_EQ(made_result.code, 0) << made_result.output;
    EXPECT_EQ(made_result.output, "");
    EXPECT_EQ(read_file(out), made(small));
    const ToolRun checked = zelfwfile("check " + quoted(out));
    EXPECT_EQ(checked.code, 0);
    EXPECT_EQ(
        checked.output,
        out +
            ": OK: product 3c02, component 2, level 01.05, 6 records, 3 of them data, build 7, "
            "type font, name \"Boot block\"\n");
    EXPECT_EQ(zelfwfile("make " + quoted(path)).code, 0);
    EXPECT_EQ(read_file(directory_.path("image.dat")), made(small));
}

TEST_F(Zelfwfile, ProgramChecksEveryFileAndFailsForOne) {
    const std::string good = directory_.write("good.dat", made(small));
    const std::string bad = directory_.write("bad.dat", "3c0");
    const ToolRun result = zelfwfile("check " + quoted(bad) + " " + quoted(good));
    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(result.output,
                StartsWith(bad + ": offset 3: the file ends inside the header\n" + good + ": OK"));
}

TEST_F(Zelfwfile, FailedMakeLeavesTheOldFileAndNothingElse) {
    const std::string path = description("product = 1\nlevel = \"01.05\"\n[data]\nhex = [\"0\"]\n");
    const std::string out = directory_.write("out.dat", "old");
    const ToolRun result = zelfwfile("make " + quoted(path) + " -o " + quoted(out));
    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(result.output, StartsWith(path + ":4: record 1 of \"hex\""));
    EXPECT_EQ(read_file(out), "old");
    EXPECT_EQ(directory_listing().size(), 2U);
}

TEST_F(Zelfwfile, FailedWriteLeavesNothingBehind) {
    const std::string path = description(small);
    std::filesystem::create_directory(directory_.path("out.dat"));
    const ToolRun directory =
        zelfwfile("make " + quoted(path) + " -o " + quoted(directory_.path("out.dat")));
    EXPECT_EQ(directory.code, 1);
    EXPECT_EQ(directory.output, directory_.path("out.dat") + ": is no regular file\n");
    const ToolRun missing =
        zelfwfile("make " + quoted(path) + " -o " + quoted(directory_.path("no/out.dat")));
    EXPECT_EQ(missing.code, 1);
    EXPECT_EQ(missing.output, directory_.path("no/out.dat") + ": No such file or directory\n");
    EXPECT_EQ(zelfwfile("make " + quoted(path) + " -o /dev/null").code, 1);
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
    EXPECT_EQ(directory_listing().size(), 2U);
}

TEST_F(Zelfwfile, FullDiskIsReportedAndLeavesNothingBehind) {
    const std::string path = description(with_data("pattern = 4000\nrecord_size = 255\n"));
    // A file size limit stands for the full disk.
    const ToolRun run = run_tool("trap '' XFSZ; ulimit -f 8; " + quoted(ZELFWFILE) + " make " +
                                 quoted(path) + " -o " + quoted(directory_.path("out.dat")));
    EXPECT_EQ(run.errors, directory_.path("out.dat") + ": File too large\n");
    EXPECT_EQ(run.output, "");
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(directory_listing(), ElementsAre("image.toml"));
}

TEST_F(Zelfwfile, MadeFileHasTheModeOfAnyNewFile) {
    const std::string out = directory_.path("out.dat");
    const mode_t mask = umask(027);
    write_whole_file(out, {1, 2});
    umask(mask);
    struct stat status = {};
    ASSERT_EQ(stat(out.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0640U);
}

TEST_F(Zelfwfile, WronglyWrittenKeyIsToldWithTheNearestOne) {
    const std::pair<const char*, const char*> cases[] = {
        {"prodcut = 1\n", ":1: unknown key \"prodcut\", did you mean \"product\"?"},
        {"product = 1\nlevel = \"x\"\n[data]\nimag = \"a\"\n",
         ":4: unknown key \"imag\", did you mean \"image\"?"},
    };
    for (const auto& [text, reason] : cases) {
        const std::string path = description(text);
        EXPECT_EQ(zelfwfile("make " + quoted(path)).output, path + reason + "\n");
    }
}

TEST_F(Zelfwfile, MissingDescriptionIsNamed) {
    const ToolRun result = zelfwfile("make " + quoted(directory_.path("none.toml")));
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.output, directory_.path("none.toml") + ": No such file or directory\n");
}

TEST_F(Zelfwfile, WrongArgumentsAreNamedAndEndWithTwo) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", "no command given"},
        {"mkae a.toml", "unknown command 'mkae'"},
        {"make", "'make' takes one description; -o names the output"},
        {"make a.toml b.toml", "'make' takes one description; -o names the output"},
        {"check", "'check' needs a file"},
        {"check -o a.dat b.dat", "'check' writes no file"},
        {"show", "'show' needs a file"},
        {"show -o a b.dat", "'show' writes no file"},
        {"check --json a.dat", "'--json' goes with 'show' only"},
        {"diff a.dat", "'diff' takes two files"},
        {"diff a.dat b.dat c.dat", "'diff' takes two files"},
        {"extract", "'extract' takes one file; -o names the directory"},
        {"make a.toml -o", "option '-o' needs a file name"},
        {"make a.toml --output ''", "option '--output' needs a file name"},
        {"make a.toml -o b -o c", "option '-o' was given twice"},
        {"--verbose", "unknown option '--verbose'"},
        {"check -x a.dat", "unknown option '-x'"},
    };
    for (const auto& [arguments, reason] : cases) {
        const ToolRun result = zelfwfile(arguments);
        EXPECT_EQ(result.code, 2) << arguments;
        EXPECT_EQ(result.output, "zelfwfile: " + reason + "\nTry 'zelfwfile --help'.\n");
    }
}

TEST_F(Zelfwfile, ArgumentsBehindTwoDashesAreNames) {
    EXPECT_EQ(zelfwfile("check -- -o").output, "-o: cannot be opened, or is no regular file\n");
}

TEST_F(Zelfwfile, HelpAndVersionAreGivenOnRequest) {
    const ToolRun help = zelfwfile("--help");
    EXPECT_EQ(help.code, 0);
    for (const char* word : {"make", "check", "--output", "--version", "record_size", "checksum",
                             "EXIT STATUS", "inline-version-text"}) {
        EXPECT_THAT(help.output, HasSubstr(word));
    }
    EXPECT_EQ(zelfwfile("-h").output, help.output);
    const ToolRun version = zelfwfile("--version");
    EXPECT_EQ(version.code, 0);
    EXPECT_EQ(version.output, "zelfwfile " ZELF_VERSION "\n");
    for (const std::string command : {"make", "check", "show", "diff", "extract"}) {
        EXPECT_EQ(zelfwfile(command + " --help").output, help.output);
        EXPECT_EQ(zelfwfile(command + " --version").output, version.output);
    }
}

TEST_F(Zelfwfile, OutputThatCannotBeWrittenFails) {
    EXPECT_EQ(zelfwfile("--help > /dev/full").code, 1);
}

TEST(DemoFirmware, IsWholeAndComesFromEveryDescription) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(DEMO_DESCRIPTION_DIR)) {
        const auto name = entry.path().stem().string() + ".dat";
        const auto path = std::filesystem::path(DEMO_FIRMWARE_DIR) / name;
        const FirmwareVerdict found = check_firmware_file(path.string());
        EXPECT_TRUE(found.whole) << name << ": " << found.text;
        ++count;
    }
    EXPECT_GT(count, 0);
}
