#include "firmware/firmware_display.h"

#include "journal/file_handle.h"
#include "journal/output.h"
#include "journal/zelfwtrace.h"
#include "session/zelflash.h"
#include "settings.h"
#include "support/firmware_bytes.h"
#include "support/output_capture.h"
#include "support/temporary_directory.h"
#include "support/trace_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr char header_lines[] =
    "ProductID:  3c02\n"
    "EC Level:   01.05\n"
    "Flash Data:\n";

class FirmwareDisplay : public testing::Test {
  protected:
    FirmwareDisplay() { reset_options(); }

    /// Console and log of a listing, which must be the same.
    std::string shown(const std::string& path) {
        OutputCapture capture;
        session_->display_firmware_file(path.c_str());
        const WrittenOutput output = capture.take();
        EXPECT_EQ(output.console, output.log);
        return output.console;
    }
    std::string shown(const FirmwareBytes& bytes) {
        return shown(directory_.write("image.dat", bytes));
    }
    std::string component_line(const component_entry& component, int index = 0) {
        flashEntry entry = {};
        entry.component[index] = component;
        OutputCapture capture;
        session_->show_component_information(&entry, index);
        const WrittenOutput output = capture.take();
        EXPECT_EQ(output.console, "");
        return output.log;
    }

    TemporaryDirectory directory_;
    std::unique_ptr<ZELFLASH> session_ = std::make_unique<ZELFLASH>();
};

FirmwareBytes file() {
    return FirmwareBytes("3C020105");
}

ssize_t fail_to_read(void*, char*, size_t) {
    errno = EIO;
    return -1;
}

}  // namespace

TEST_F(FirmwareDisplay, MissingFileIsNamed) {
    EXPECT_EQ(shown(directory_.path("no%sne\n.dat")),
              "No flash file: " + directory_.path("no%sne\n.dat") + "\n");
}

TEST_F(FirmwareDisplay, WhatIsNoRegularFileIsNoFlashFile) {
    ASSERT_EQ(mkfifo(directory_.path("fifo.dat").c_str(), 0600), 0);
    EXPECT_THAT(shown(directory_.path("fifo.dat")), StartsWith("No flash file: "));
    EXPECT_THAT(shown(directory_.path()), StartsWith("No flash file: "));
}

TEST_F(FirmwareDisplay, OpeningIsADebugLine) {
    OutputLevel = 3;
    OutputCapture capture;
    session_->display_firmware_file("nowhere");
    EXPECT_EQ(capture.take().log, "3:Opening file 'nowhere'\nNo flash file: nowhere\n");
}

TEST_F(FirmwareDisplay, HeaderAloneShowsTheThreeHeaderLines) {
    EXPECT_EQ(shown(file()), header_lines);
}

TEST_F(FirmwareDisplay, ShortOrZeroProductEndsTheListing) {
    EXPECT_EQ(shown(FirmwareBytes("3C0")), "ProductID:  ffffffff\n");
    EXPECT_EQ(shown(FirmwareBytes("")), "ProductID:  ffffffff\n");
    EXPECT_EQ(shown(FirmwareBytes("00000105")), "ProductID:  0000\n");
    EXPECT_EQ(shown(FirmwareBytes("zzzz0105")), "ProductID:  0000\n");
}

TEST_F(FirmwareDisplay, LevelBelowOneEndsTheListing) {
    EXPECT_EQ(shown(FirmwareBytes("3C020000").record(0x20, 0, {1}).end()),
              "ProductID:  3c02\nEC Level:   00.00\n");
    EXPECT_EQ(shown(FirmwareBytes("3C0201")), "ProductID:  3c02\nEC Level:   ff.ff\n");
}

TEST_F(FirmwareDisplay, WholeFileWithItsInformationDecoded) {
    EXPECT_EQ(shown(file()
                        .record(0xFF, 0, {0x02, 0x0A})
                        .record(0xFF, 1, {0x32, 0x06, 0x81, 0x01, 0x03, 0x07, 0x01, 0x82})
                        .record(0xFF, 2, {0x12, 0x05, 0x91, 0x05, 0x0C})
                        .text_record(0xF2, 0, "Boot %d block")
                        .record(0xF2, 1, {0x95, 0x84})
                        .record(0x2F, 0, {0x81, 0x05})
                        .record(0x20, 7, {0xDE, 0xAD})
                        .end(0x0F, 0xF0)),
              std::string(header_lines) +
                  "000:5  (Rff0000) - 02.ff.00.00.02.0a.\n"
                  "Component ID List: 02 0a \n"
                  "001:11 (Rff0001) - 08.ff.00.01.32.06.81.01.03.07.01.82.\n"
                  "Component Version List:\n"
                  "    Marker:     3\n"
                  "    Component:  2\n"
                  "    Version:    81.06\n"
                  "    Flag:       1 (Configuration)\n"
                  "    Marker:     0\n"
                  "    Component:  3\n"
                  "    Version:    01.07\n"
                  "    Flag:       130 (Firmwware)\n"
                  "\n"
                  "002:8  (Rff0002) - 05.ff.00.02.12.05.91.05.0c.\n"
                  "Component Version List Extended:\n"
                  "    Component:          2\n"
                  "    Version:            91.05\n"
                  "    File type           2 (Configuration)\n"
                  "    Version Management: 1 (Random)\n"
                  "    Build Level:        0c\n"
                  "\n"
                  "003:16 (Rf20000) - 0d.f2.00.00.42.6f.6f.74.20.25.64.20.62.6c.6f.63.6b.\n"
                  "Component 2 ID String: Boot %d block\n"
                  "004:5  (Rf20001) - 02.f2.00.01.95.84.\n"
                  "Component 2 Version: 84.95\n"
                  "005:5  (R2f0000) - 02.2f.00.00.81.05.\n"
                  "Component version: 8105\n"
                  "006:5  (R200007) - 02.20.00.07.de.ad.\n"
                  "Checksum -         0f.f0");
}

TEST_F(FirmwareDisplay, DumpWrapsAfterEvery25Bytes) {
    const std::string indent = "\n" + std::string(19, ' ');
    EXPECT_EQ(shown(file().record(0x20, 0, std::vector<std::uint8_t>(26, 0x11))),
              std::string(header_lines) +
                  "000:29 (R200000) - 1a.20.00.00."
                  "11.11.11.11.11.11.11.11.11.11.11.11.11.11.11.11.11.11.11.11.11." +
                  indent + "11.11.11.11.11.\n");
    EXPECT_THAT(shown(file().record(0x20, 0, std::vector<std::uint8_t>(21, 0x11))),
                EndsWith("11.11.11.\n"));
    const std::string longest = shown(file().record(0x20, 0, std::vector<std::uint8_t>(255, 0x11)));
    EXPECT_EQ(std::count(longest.begin(), longest.end(), '\n'), 3 + 11);
    EXPECT_THAT(longest, HasSubstr("000:258(R200000) - ff.20.00.00.11."));
}

TEST_F(FirmwareDisplay, EachOfManyRecordsIsShownOnceAndInOrder) {
    FirmwareBytes many = file();
    std::string lines = header_lines;
    for (unsigned int i = 0; i < 400; ++i) {
        many.record(0x20, i, {0x11});
        char line[64];
        snprintf(line, sizeof line, "%03u:4  (R20%04x) - 01.20.%02x.%02x.11.\n", i, i, i >> 8,
                 i & 0xFF);
        lines += line;
    }
    EXPECT_EQ(shown(many), lines);
}

TEST_F(FirmwareDisplay, LongestListsAreShownWhole) {
    const std::string extended = shown(file().record(0xFF, 2, std::vector<std::uint8_t>(255, 1)));
    EXPECT_EQ(std::count(extended.begin(), extended.end(), '\n'), 3 + 11 + 1 + 51 * 5 + 1);
    const std::string plain = shown(file().record(0xFF, 1, std::vector<std::uint8_t>(255, 1)));
    EXPECT_EQ(std::count(plain.begin(), plain.end(), '\n'), 3 + 11 + 1 + 63 * 4 + 1);
}

TEST_F(FirmwareDisplay, EveryTypeAndControlHasItsWord) {
    const std::string text = shown(
        file().record(0xFF, 2, {0, 0, 0, 0xF8, 0, 1, 0, 0, 2, 0, 2, 0, 0, 5, 0, 3, 0, 0, 7, 0}));
    EXPECT_THAT(text, HasSubstr("    File type           0 (Unspecified)\n"
                                "    Version Management: 0 (Increasing)\n"));
    EXPECT_THAT(text, HasSubstr("    File type           1 (Firmware)\n"));
    EXPECT_THAT(text, HasSubstr("    File type           2 (Configuration)\n"
                                "    Version Management: 1 (Random)\n"));
    EXPECT_THAT(text, HasSubstr("    File type           3 (Font)\n"));
}

TEST_F(FirmwareDisplay, NothingIsDecodedBehindARecordThatWasNot) {
    const std::string text = shown(file()
                                       .record(0xFF, 0, {2})
                                       .record(0x20, 0, {1})
                                       .record(0xFF, 0, {3})
                                       .record(0x2F, 0, {1, 5}));
    EXPECT_THAT(text, HasSubstr("Component ID List: 02 \n"));
    EXPECT_THAT(text, Not(HasSubstr("Component ID List: 03")));
    EXPECT_THAT(text, Not(HasSubstr("Component version")));
    const std::string in_line =
        shown(file().record(0xFF, 0, {2}).record(0x2F, 0, {1, 5}).record(0xF2, 1, {1, 5}));
    EXPECT_THAT(in_line, HasSubstr("Component version: 0105\n"));
    EXPECT_THAT(in_line, Not(HasSubstr("Component 2 Version")));
}

TEST_F(FirmwareDisplay, OtherComponentsAndSubtypesStayLinesOfBytes) {
    EXPECT_THAT(shown(file().record(0xFF, 0, {2}).record(0xF3, 1, {1, 5})),
                EndsWith("001:5  (Rf30001) - 02.f3.00.01.01.05.\n"));
    EXPECT_THAT(shown(file().record(0xFF, 0, {2}).record(0xF2, 2, {1, 5, 0, 1})),
                EndsWith("001:7  (Rf20002) - 04.f2.00.02.01.05.00.01.\n"));
    EXPECT_THAT(shown(file().record(0xFF, 0, {2}).record(0x3F, 0, {1, 5})),
                EndsWith("001:5  (R3f0000) - 02.3f.00.00.01.05.\n"));
    EXPECT_THAT(shown(file().record(0xFF, 3, {2})),
                EndsWith("000:4  (Rff0003) - 01.ff.00.03.02.\n"));
    EXPECT_THAT(shown(file().record(0x2F, 0, {1, 5})),
                EndsWith("000:5  (R2f0000) - 02.2f.00.00.01.05.\n"));
}

TEST_F(FirmwareDisplay, RecordsTooShortForTheirFieldsStayLinesOfBytes) {
    EXPECT_THAT(shown(file().record(0xFF, 1, {2, 1, 1})), EndsWith("02.01.01.\n"));
    EXPECT_THAT(shown(file().record(0xFF, 2, {2, 1, 1, 2})), EndsWith("02.01.01.02.\n"));
    EXPECT_THAT(shown(file().record(0xFF, 0, {2}).record(0xF2, 1, {7})), EndsWith("01.07.\n"));
    EXPECT_THAT(shown(file().record(0xFF, 0, {2}).record(0x2F, 0, {7})), EndsWith("00.07.\n"));
}

TEST_F(FirmwareDisplay, EntriesCutAtTheRecordsEndAreLeftOut) {
    const std::string text = shown(file().record(0xFF, 2, {2, 1, 1, 2, 0, 3, 1, 1}));
    EXPECT_THAT(text, HasSubstr("    Component:          2\n"));
    EXPECT_THAT(text, Not(HasSubstr("    Component:          3\n")));
}

TEST_F(FirmwareDisplay, NameIsShownTo32CharactersWithoutZeroBytes) {
    EXPECT_THAT(shown(file().record(0xFF, 0, {2}).text_record(0xF2, 0, std::string(33, 'n'))),
                EndsWith("Component 2 ID String: " + std::string(32, 'n') + "\n"));
    EXPECT_THAT(shown(file().record(0xFF, 0, {2}).record(0xF2, 0, {'a', 0, 'b', 0})),
                EndsWith("Component 2 ID String: ab\n"));
}

TEST_F(FirmwareDisplay, InlineVersionOfFourDigits) {
    EXPECT_THAT(shown(file().record(0xFF, 0, {2}).text_record(0x2F, 0, "02fe")),
                EndsWith("Component version: 02fe\n"));
    EXPECT_THAT(shown(file().record(0xFF, 0, {2}).text_record(0x2F, 0, "wxyz")),
                EndsWith("Component version: 0000\n"));
}

TEST_F(FirmwareDisplay, RecordCutShortIsShownWithWhatWasReadAndNotDecoded) {
    EXPECT_EQ(shown(file().lying_record(200, 0xFF, 0, {2, 3})),
              std::string(header_lines) + "000:5  (Rff0000) - c8.ff.00.00.02.03.\n");
    EXPECT_EQ(shown(file().raw({9})), std::string(header_lines) + "000:0  (R000000) - 09.\n");
}

TEST_F(FirmwareDisplay, MissingChecksumBytesAreReported) {
    EXPECT_EQ(shown(file().raw({0, 1})),
              std::string(header_lines) + "File corrupted (read=1 needed=2)\n");
    EXPECT_EQ(shown(file().raw({0})),
              std::string(header_lines) + "File corrupted (read=0 needed=2)\n");
}

TEST_F(FirmwareDisplay, LengthByteThatCannotBeReadIsReported) {
    cookie_io_functions_t functions = {};
    struct Stream {
        std::string content = "3C020105";
        static ssize_t read(void* cookie, char* buffer, size_t size) {
            std::string& left = static_cast<Stream*>(cookie)->content;
            const std::size_t count = left.copy(buffer, size);
            left.erase(0, count);
            return count > 0 ? static_cast<ssize_t>(count) : fail_to_read(cookie, buffer, size);
        }
    } cookie;
    functions.read = Stream::read;
    const FileHandle stream(fopencookie(&cookie, "r", functions));
    OutputCapture capture;
    display_firmware_stream(stream.get());
    EXPECT_EQ(capture.take().console,
              std::string(header_lines) + "File corrupted (read=0 needed=1)\n");
}

TEST_F(FirmwareDisplay, CutAnywhereIsShownToTheCut) {
    const std::string whole = file()
                                  .record(0xFF, 0, {2})
                                  .record(0xFF, 2, {2, 5, 1, 5, 4})
                                  .record(0x20, 0, {1, 2, 3})
                                  .end()
                                  .bytes();
    const std::string all = shown(FirmwareBytes(whole));
    EXPECT_THAT(all, EndsWith("Checksum -         ab.cd"));
    for (std::size_t size = 8; size < whole.size(); ++size) {
        const std::string part = shown(FirmwareBytes(whole.substr(0, size)));
        EXPECT_THAT(part, Not(HasSubstr("Checksum"))) << size;
        EXPECT_LT(part.size(), all.size() + 40) << size;
        EXPECT_THAT(part, StartsWith(header_lines)) << size;
    }
}

TEST_F(FirmwareDisplay, AllButTheChecksumIsTraced) {
    trace = std::make_unique<Trace>(directory_.path("trace").c_str(), 0, 0);
    shown(file().record(0xFF, 0, {2}).record(0x20, 0, {'%', '%'}).end());
    trace.reset();
    EXPECT_THAT(trace_texts(directory_.path("trace")),
                ElementsAre("ProductID:  3c02\n", "EC Level:   01.05\n", "Flash Data:\n",
                            "000:4  (Rff0000) - 01.ff.00.00.02.\n", "Component ID List: 02 \n",
                            "001:5  (R200000) - 02.20.00.00.25.25.\n"));
}

TEST_F(FirmwareDisplay, QuietRunStillWritesTheLog) {
    OutputLevel = 0;
    OutputCapture capture;
    session_->display_firmware_file(directory_.write("a.dat", file().end()).c_str());
    const WrittenOutput output = capture.take();
    EXPECT_EQ(output.console, "");
    EXPECT_EQ(output.log, std::string(header_lines) + "Checksum -         ab.cd");
}

TEST_F(FirmwareDisplay, ComponentLineGoesToTheLogOnly) {
    EXPECT_EQ(component_line({2, 0x0105, 0x1A, 2, 1}, 2),
              "    Component: ID: 02  Version: 01.05.1a  Type: Configuration  Control: Random\n");
    EXPECT_EQ(
        component_line({0, 0x81FF, 0, 0, 0}),
        "    Component: ID: 00  Version: 81.ff     Type: Unspecified    Control: Increasing\n");
}

TEST_F(FirmwareDisplay, ComponentLineNamesUnknownValues) {
    EXPECT_THAT(component_line({0, 0, 0, 4, 2}),
                EndsWith("Type: Unknown(04)    Control: Unknown(02)\n"));
    EXPECT_THAT(component_line({0, 0, 0, 1, -1}),
                EndsWith("Type: Firmware       Control: Unknown(ffffffff)\n"));
    EXPECT_THAT(component_line({0, 0, 0, 3, 0}), HasSubstr("Type: Font           "));
}

TEST_F(FirmwareDisplay, ComponentLineNeedsARowOfTheTable) {
    flashEntry entry = {};
    OutputCapture capture;
    session_->show_component_information(nullptr, 0);
    session_->show_component_information(&entry, -1);
    session_->show_component_information(&entry, max_components);
    EXPECT_EQ(capture.take().log, "");
    OutputCapture of_the_last_row;
    session_->show_component_information(&entry, max_components - 1);
    EXPECT_THAT(of_the_last_row.take().log, HasSubstr("    Component: ID: "));
}
