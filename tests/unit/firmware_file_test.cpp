#include "firmware/firmware_file.h"

#include "journal/file_handle.h"
#include "journal/output.h"
#include "settings.h"
#include "support/firmware_bytes.h"
#include "support/output_capture.h"
#include "support/temporary_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

/// What `read_file_info` gives, all of it preset to something it must overwrite.
struct Summary {
    int result = -99;
    int product_id = -99;
    int version = -99;
    int component = -99;
    int ec_level = -99;
    int file_type = -99;
    int build_level = -99;
    int version_method = -99;
};

Summary summary_of(const std::string& path) {
    Summary s;
    s.result = read_file_info(path.c_str(), s.product_id, s.version, s.component, s.ec_level,
                              s.file_type, s.build_level, s.version_method);
    return s;
}

class FirmwareFile : public testing::Test {
  protected:
    FirmwareFile() { reset_options(); }

    Summary summary(const FirmwareBytes& bytes, const std::string& name = "image.dat") {
        return summary_of(directory_.write(name, bytes));
    }
    std::string debug_lines(const FirmwareBytes& bytes, const std::string& name = "image.dat") {
        OutputLevel = 3;
        OutputCapture capture;
        summary(bytes, name);
        return capture.take().log;
    }
    int count(const FirmwareBytes& bytes) {
        return count_download_lines(directory_.write("image.dat", bytes).c_str());
    }

    TemporaryDirectory directory_;
};

FirmwareBytes three_records() {
    return FirmwareBytes("3C020105")
        .record(0xFF, 0, {0x02, 0x04})
        .record(0x20, 0, {1, 2, 3})
        .record(0x20, 1, {4})
        .end();
}

/// A stream of `content` whose reads fail with an I/O error behind it.
struct FailingStream {
    std::string content;
    std::size_t position = 0;

    static ssize_t read(void* cookie, char* buffer, size_t size) {
        auto* self = static_cast<FailingStream*>(cookie);
        const std::size_t left = self->content.size() - self->position;
        if (left == 0) {
            errno = EIO;
            return -1;
        }
        const std::size_t count = std::min(left, size);
        self->content.copy(buffer, count, self->position);
        self->position += count;
        return static_cast<ssize_t>(count);
    }
    FileHandle open() {
        cookie_io_functions_t functions = {};
        functions.read = read;
        return FileHandle(fopencookie(this, "r", functions));
    }
};

/// Stands for every file that is opened, when it is not null.
FailingStream* opened_instead = nullptr;

FileHandle stream_of(std::string& content) {
    return FileHandle(fmemopen(content.data(), content.size(), "rb"));
}

}  // namespace

extern "C" FILE* fdopen(int descriptor, const char* mode) {
    using Function = FILE* (*)(int, const char*);
    static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "fdopen"));
    if (opened_instead == nullptr) {
        return real(descriptor, mode);
    }
    close(descriptor);
    return opened_instead->open().release();
}

TEST_F(FirmwareFile, HeaderGivesProductLevelAndVersionDigit) {
    const Summary s = summary(FirmwareBytes("3C02a105"));
    EXPECT_EQ(s.result, 0);
    EXPECT_EQ(s.product_id, 0x3C02);
    EXPECT_EQ(s.ec_level, 0xA105);
    EXPECT_EQ(s.version, 1);
    EXPECT_EQ(s.component, 0);
    EXPECT_EQ(s.build_level, 0);
    EXPECT_EQ(s.version_method, 0);
}

TEST_F(FirmwareFile, VersionDigitIsTheDistanceFromTheCharacterZero) {
    EXPECT_EQ(summary(FirmwareBytes("3C020a05")).version, 49);
    EXPECT_EQ(summary(FirmwareBytes("3C020A05")).version, 17);
    EXPECT_EQ(summary(FirmwareBytes("3C020\xFF"
                                    "05"))
                  .version,
              0xFF - '0');
}

TEST_F(FirmwareFile, ShortHeaderReadsAsMinusOne) {
    const Summary no_level = summary(FirmwareBytes("3C02010"));
    EXPECT_EQ(no_level.product_id, 0x3C02);
    EXPECT_EQ(no_level.ec_level, -1);
    EXPECT_EQ(no_level.component, 0);
    const Summary nothing = summary(FirmwareBytes(""));
    EXPECT_EQ(nothing.result, 0);
    EXPECT_EQ(nothing.product_id, -1);
    EXPECT_EQ(nothing.ec_level, -1);
}

TEST_F(FirmwareFile, HeaderThatIsNotHexadecimalReadsAsZero) {
    const Summary s = summary(FirmwareBytes("zzzzyyyy"));
    EXPECT_EQ(s.product_id, 0);
    EXPECT_EQ(s.ec_level, 0);
}

TEST_F(FirmwareFile, MissingFileIsReportedByDebugLineOnly) {
    OutputLevel = 3;
    OutputCapture capture;
    const Summary s = summary_of(directory_.path("none.cfg"));
    const WrittenOutput output = capture.take();
    EXPECT_EQ(s.result, 8);
    EXPECT_EQ(s.file_type, FILE_TYPE_FIRMWARE);
    EXPECT_EQ(s.version_method, 0);
    EXPECT_EQ(output.console, "");
    EXPECT_EQ(output.log, "3:File '" + directory_.path("none.cfg") + "':\n3:    Not found\n");
}

TEST_F(FirmwareFile, WhatIsNoRegularFileCountsAsMissing) {
    ASSERT_EQ(mkfifo(directory_.path("fifo.dat").c_str(), 0600), 0);
    EXPECT_EQ(summary_of(directory_.path("fifo.dat")).result, 8);
    EXPECT_EQ(count_download_lines(directory_.path("fifo.dat").c_str()), 0);
    EXPECT_EQ(summary_of(directory_.path()).result, 8);
    EXPECT_EQ(summary_of(directory_.path() + "/").result, 8);
    EXPECT_EQ(summary_of("/dev/zero").result, 8);
    EXPECT_EQ(summary_of("").result, 8);
}

TEST_F(FirmwareFile, LinkToAFileIsOpened) {
    directory_.write("real.dat", three_records());
    ASSERT_EQ(symlink("real.dat", directory_.path("link.dat").c_str()), 0);
    EXPECT_EQ(summary_of(directory_.path("link.dat")).product_id, 0x3C02);
}

TEST_F(FirmwareFile, ExtensionGivesTheTypeUntilAListSaysOtherwise) {
    const FirmwareBytes plain("3C020105");
    EXPECT_EQ(summary(plain, "a.dat").file_type, 1);
    EXPECT_EQ(summary(plain, "a.DaT").file_type, 1);
    EXPECT_EQ(summary(plain, "a.CFG").file_type, 1);
    EXPECT_EQ(summary(plain, ".cfg").file_type, 1);
    EXPECT_EQ(summary(plain, "a.bin").file_type, 128);
    EXPECT_EQ(summary(plain, "dat").file_type, 128);
    EXPECT_EQ(summary(plain, "a.dat.bak").file_type, 128);
    const FirmwareBytes font = FirmwareBytes("3C020105").record(0xFF, 2, {3, 5, 1, 0x06, 0});
    EXPECT_EQ(summary(font, "a.bin").file_type, 3);
}

TEST_F(FirmwareFile, FirstExtendedEntryDescribesTheFile) {
    const Summary s = summary(FirmwareBytes("3C020105")
                                  .record(0xFF, 0, {2})
                                  .record(0xFF, 2, {2, 0x91, 0x82, 0x05, 0xF3, 7, 1, 1, 1, 1})
                                  .record(0x20, 0, {1}));
    EXPECT_EQ(s.component, 2);
    EXPECT_EQ(s.file_type, 2);
    EXPECT_EQ(s.version_method, 1);
    EXPECT_EQ(s.build_level, 0xF3);
    EXPECT_EQ(s.ec_level, 0x0105);
}

TEST_F(FirmwareFile, UnspecifiedTypeIsFirmwareForTheMainComponentOnly) {
    EXPECT_EQ(summary(FirmwareBytes("3C020105").record(0xFF, 2, {0, 5, 1, 0, 0})).file_type, 1);
    EXPECT_EQ(summary(FirmwareBytes("3C020105").record(0xFF, 2, {4, 5, 1, 0, 0})).file_type, 0);
}

TEST_F(FirmwareFile, TypeBitsAboveTheSecondAreIgnored) {
    const Summary s = summary(FirmwareBytes("3C020105").record(0xFF, 2, {4, 5, 1, 0xFA, 0}));
    EXPECT_EQ(s.file_type, 1);
    EXPECT_EQ(s.version_method, 0);
}

TEST_F(FirmwareFile, ExtendedListShorterThanAnEntryTellsNothing) {
    const Summary s = summary(FirmwareBytes("3C020105")
                                  .record(0xFF, 0, {3})
                                  .record(0xFF, 2, {9, 5, 1, 0x05})
                                  .record(0xF3, 2, {5, 1, 0, 8}));
    EXPECT_EQ(s.component, 3);
    EXPECT_EQ(s.file_type, 1);
    EXPECT_EQ(s.version_method, 0);
    EXPECT_EQ(s.build_level, 8);
}

TEST_F(FirmwareFile, DownloadRecordFirstLeavesComponentZeroAndHeaderLevel) {
    use_information_record_ec_level = 1;
    const Summary s = summary(FirmwareBytes("3C020105")
                                  .record(0x30, 0, {1, 2})
                                  .record(0xFF, 0, {5})
                                  .record(0xFF, 2, {5, 9, 9, 1, 9}));
    EXPECT_EQ(s.component, 0);
    EXPECT_EQ(s.ec_level, 0x0105);
    EXPECT_EQ(s.build_level, 0);
}

TEST_F(FirmwareFile, ScanEndsAtTheFirstDownloadRecord) {
    const Summary s = summary(
        FirmwareBytes("3C020105").record(0xFF, 0, {1}).record(0x10, 0, {1}).record(0xFF, 0, {5}));
    EXPECT_EQ(s.component, 1);
}

TEST_F(FirmwareFile, ScanEndsAtInformationOfAnotherComponent) {
    const Summary s = summary(FirmwareBytes("3C020105")
                                  .record(0xFF, 0, {1})
                                  .record(0xF2, 0, {'x'})
                                  .record(0xF1, 2, {5, 1, 0, 8}));
    EXPECT_EQ(s.build_level, 0);
}

TEST_F(FirmwareFile, UnknownSubtypeEndsTheScanOnlyAsFirstRecord) {
    EXPECT_EQ(
        summary(FirmwareBytes("3C020105").record(0xFF, 7, {1}).record(0xFF, 0, {5})).component, 0);
    EXPECT_EQ(summary(FirmwareBytes("3C020105")
                          .record(0xFF, 0, {1})
                          .record(0xFF, 1, {0x15, 1, 1, 1})
                          .record(0xFF, 0x100, {1})
                          .record(0xFF, 0, {5}))
                  .component,
              5);
}

TEST_F(FirmwareFile, InformationLevelCountsOnlyWhenAskedFor) {
    const FirmwareBytes plain =
        FirmwareBytes("3C020105").record(0xFF, 0, {1}).record(0xF1, 1, {0x87, 0x96});
    EXPECT_EQ(summary(plain).ec_level, 0x0105);
    use_information_record_ec_level = 1;
    EXPECT_EQ(summary(plain).ec_level, 0x9687);
    EXPECT_EQ(summary(FirmwareBytes("3C020105").record(0xFF, 0, {1})).ec_level, 0x0105);
    EXPECT_EQ(summary(FirmwareBytes("3C020105").record(0xFF, 2, {0, 0x80, 0x02, 0, 0})).ec_level,
              0x0280);
    EXPECT_EQ(summary(FirmwareBytes("3C020105").record(0xFF, 0, {1}).record(0xF1, 2, {5, 4, 0, 8}))
                  .ec_level,
              0x0405);
}

TEST_F(FirmwareFile, InlineVersionIsMajorFirst) {
    use_information_record_ec_level = 1;
    EXPECT_EQ(summary(FirmwareBytes("3C020105").record(0xFF, 0, {1}).record(0x1F, 0, {0x82, 0x93}))
                  .ec_level,
              0x8293);
    EXPECT_EQ(summary(FirmwareBytes("3C020105").record(0xFF, 0, {1}).text_record(0x1F, 0, "02fE"))
                  .ec_level,
              0x02FE);
    EXPECT_EQ(
        summary(FirmwareBytes("3C020105").record(0xFF, 0, {1}).record(0x1F, 0, {2, 3, 4})).ec_level,
        0x0105);
    EXPECT_EQ(
        summary(FirmwareBytes("3C020105").record(0xFF, 0, {1}).record(0x2F, 0, {2, 3})).ec_level,
        0x0105);
}

TEST_F(FirmwareFile, VersionRecordsTooShortForTheirFieldsTellNothing) {
    use_information_record_ec_level = 1;
    const Summary s = summary(FirmwareBytes("3C020105")
                                  .record(0xFF, 0, {1})
                                  .record(0xF1, 1, {9})
                                  .record(0xF1, 2, {9, 9, 9}));
    EXPECT_EQ(s.ec_level, 0x0105);
    EXPECT_EQ(s.build_level, 0);
}

TEST_F(FirmwareFile, LowestLevelShowsTheRecords) {
    EXPECT_EQ(summary(FirmwareBytes("3C020001").record(0xFF, 2, {5, 9, 9, 7, 9})).component, 5);
}

TEST_F(FirmwareFile, LevelBelowOneHidesTheRecords) {
    const Summary s = summary(FirmwareBytes("3C020000").record(0xFF, 2, {5, 9, 9, 7, 9}), "a.bin");
    EXPECT_EQ(s.ec_level, 0);
    EXPECT_EQ(s.component, 0);
    EXPECT_EQ(s.build_level, 0);
    EXPECT_EQ(s.file_type, 128);
}

TEST_F(FirmwareFile, SummaryIsTracedInDebugLines) {
    const std::string path = directory_.path("image.dat");
    EXPECT_EQ(debug_lines(FirmwareBytes("3C020105")
                              .record(0xFF, 0, {2})
                              .record(0xFF, 2, {2, 0x05, 0x01, 0x03, 0x04})
                              .text_record(0xF2, 0, "Boot%s")
                              .record(0xF2, 1, {0x06, 0x02})
                              .record(0xF2, 2, {0x07, 0x03, 0, 0x0A})),
              "3:File '" + path +
                  "':\n"
                  "3:    ProductID:         3c02\n"
                  "3:    EC Level:          01.05\n"
                  "3:    Version:           1\n"
                  "3:    Component ID:      2\n"
                  "3:    Component ID: 2  Version: 01.05.04 (Flag: 03)\n"
                  "3:    Firmware component type\n"
                  "3:    Random version\n"
                  "3:    Component 2 ID String: Boot%s\n"
                  "3:    Component version: 02.06\n"
                  "3:    Component version: 03.07.0a\n");
}

TEST_F(FirmwareFile, SummaryReportsALengthByteThatCannotBeRead) {
    const std::string path = directory_.write("image.dat", "");
    FailingStream failing{FirmwareBytes("3C020105").record(0xFF, 0, {2}).bytes()};
    OutputCapture capture;
    opened_instead = &failing;
    const Summary s = summary_of(path);
    opened_instead = nullptr;
    const WrittenOutput output = capture.take();
    EXPECT_EQ(output.console, "File corrupted (read=0 needed=1)\n");
    EXPECT_EQ(output.log, output.console);
    EXPECT_EQ(s.result, 0);
    EXPECT_EQ(s.component, 2);
}

TEST_F(FirmwareFile, EachTypeHasItsDebugLine) {
    const auto lines = [this](std::uint8_t flags) {
        return debug_lines(FirmwareBytes("3C020105").record(0xFF, 2, {1, 5, 1, flags, 0}));
    };
    EXPECT_THAT(lines(0x00), HasSubstr("3:    Unspecified component type\n"
                                       "3:    Increasing version\n"));
    EXPECT_THAT(lines(0x04), HasSubstr("    Configuration component type\n"));
    EXPECT_THAT(lines(0x06), HasSubstr("    Font component type\n"));
}

TEST_F(FirmwareFile, NameIsShownToItsLimit) {
    EXPECT_THAT(debug_lines(FirmwareBytes("3C020105")
                                .record(0xFF, 0, {2})
                                .text_record(0xF2, 0, std::string(32, 'a') + "bcd")),
                HasSubstr("ID String: " + std::string(32, 'a') + "\n"));
}

TEST_F(FirmwareFile, CutAnywhereGivesASummaryOfWhatWasReadWhole) {
    const std::string whole = FirmwareBytes("3C020105")
                                  .record(0xFF, 0, {2})
                                  .record(0xFF, 2, {2, 5, 1, 5, 4})
                                  .record(0x20, 0, {1, 2, 3})
                                  .end()
                                  .bytes();
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        const Summary s = summary(FirmwareBytes(whole.substr(0, size)));
        EXPECT_EQ(s.product_id, size < 4 ? -1 : 0x3C02) << size;
        EXPECT_EQ(s.ec_level, size < 8 ? -1 : 0x0105) << size;
        EXPECT_EQ(s.component, size < 13 ? 0 : 2) << size;
        EXPECT_EQ(s.build_level, size < 22 ? 0 : 4) << size;
    }
}

TEST_F(FirmwareFile, CountIsTheNumberOfRecordsToTheEndMark) {
    EXPECT_EQ(count(three_records()), 3);
    EXPECT_EQ(count(FirmwareBytes("3C020105").end()), 0);
    EXPECT_EQ(count(FirmwareBytes("3C020105").end().record(0x20, 0, {1})), 0);
    EXPECT_EQ(count(FirmwareBytes("3C0")), 0);
    EXPECT_EQ(count_download_lines(directory_.path("none").c_str()), 0);
}

TEST_F(FirmwareFile, CountTakesInTheRecordThatIsCutShort) {
    OutputCapture capture;
    EXPECT_EQ(count(FirmwareBytes("3C020105").record(0x20, 0, {1})), 1);
    EXPECT_EQ(count(FirmwareBytes("3C020105").record(0x20, 0, {1}).lying_record(9, 0x20, 1, {1})),
              2);
    EXPECT_EQ(count(FirmwareBytes("3C020105").raw({255})), 1);
    EXPECT_EQ(capture.take().console, "");
}

TEST_F(FirmwareFile, CountOfAStreamThatCannotGoBackIsNone) {
    const std::string path =
        directory_.write("image.dat", FirmwareBytes("3C020105").record(0x20, 0, {1}).bytes());
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(("cat " + path).c_str(), "r"), pclose);
    ASSERT_NE(pipe, nullptr);
    EXPECT_EQ(count_download_lines(pipe.get()), 0);
}

TEST_F(FirmwareFile, CountReportsALengthByteThatCannotBeRead) {
    // A regular file whose first page can't be read.
    OutputCapture capture;
    EXPECT_EQ(count_download_lines("/proc/self/mem"), 0);
    const WrittenOutput output = capture.take();
    EXPECT_EQ(output.console, "File corrupted\n");
    EXPECT_EQ(output.log, "File corrupted\n");
}

TEST_F(FirmwareFile, NumbersAreBigEndianOfSignedBytes) {
    EXPECT_EQ(getint("\x01\x02", 2), 0x0102);
    EXPECT_EQ(getint("\x01\x02\x03", 3), 0x010203);
    EXPECT_EQ(getint("\x01\x80", 2), 256 - 128);
    EXPECT_EQ(getint("\xFF\xFF", 2), -257);
    EXPECT_EQ(getint("\x7F\xFF\xFF\xFF", 4), 0x7F000000 - 0x010101);
    EXPECT_EQ(getint("\x05", 0), 0);
    EXPECT_EQ(getint("\x05", -1), 0);
}

TEST_F(FirmwareFile, HeaderFieldsAreReadWithTheGivenWidth) {
    std::string content = "3C02A105";
    const FileHandle stream = stream_of(content);
    char version = 0;
    EXPECT_EQ(read_product_id(stream.get(), 4), 0x3C02);
    EXPECT_EQ(read_ec_level(stream.get(), 4, version), 0xA105);
    EXPECT_EQ(version, '1');
    EXPECT_EQ(read_product_id(stream.get(), 4), -1);
    EXPECT_EQ(read_ec_level(stream.get(), 4, version), -1);
}

TEST_F(FirmwareFile, RecordReaderHandsOverRecordsAndChecksum) {
    std::string content = three_records().bytes().substr(firmware_header_size);
    const FileHandle stream = stream_of(content);
    FirmwareRecordReader reader(stream.get());
    FirmwareRecord record;
    ASSERT_EQ(reader.next(record), RecordResult::whole);
    EXPECT_EQ(record.number(), 0xFF0000U);
    EXPECT_THAT(record.payload(), ElementsAre(2, 4));
    ASSERT_EQ(reader.next(record), RecordResult::whole);
    EXPECT_EQ(record.component(), 2);
    EXPECT_EQ(record.kind(), 0);
    EXPECT_THAT(record.read_bytes(), ElementsAre(3, 0x20, 0, 0, 1, 2, 3));
    ASSERT_EQ(reader.next(record), RecordResult::whole);
    EXPECT_EQ(record.subtype(), 1);
    ASSERT_EQ(reader.next(record), RecordResult::end_mark);
    std::array<std::uint8_t, 2> checksum{};
    EXPECT_EQ(reader.read_checksum(checksum), 2);
    EXPECT_THAT(checksum, ElementsAre(0xAB, 0xCD));
    EXPECT_EQ(reader.next(record), RecordResult::end_of_file);
}

TEST_F(FirmwareFile, RecordReaderTellsAShortBodyAndForgetsTheRecordBefore) {
    std::string content = FirmwareBytes("")
                              .record(0x20, 0x0102, {9, 9, 9})
                              .lying_record(255, 0x21, 0x0304, {7})
                              .bytes();
    const FileHandle stream = stream_of(content);
    FirmwareRecordReader reader(stream.get());
    FirmwareRecord record;
    ASSERT_EQ(reader.next(record), RecordResult::whole);
    ASSERT_EQ(reader.next(record), RecordResult::short_body);
    EXPECT_EQ(record.body_size, 4);
    EXPECT_EQ(record.needed_body_size(), 258);
    EXPECT_THAT(record.read_bytes(), ElementsAre(255, 0x21, 3, 4, 7));
    EXPECT_EQ(record.bytes[5], 0);
}

TEST_F(FirmwareFile, RecordReaderTellsAReadErrorFromTheEndOfTheFile) {
    FailingStream failing{FirmwareBytes("").record(0x20, 0, {1}).bytes()};
    const FileHandle stream = failing.open();
    FirmwareRecordReader reader(stream.get());
    FirmwareRecord record;
    EXPECT_EQ(reader.next(record), RecordResult::whole);
    EXPECT_EQ(reader.next(record), RecordResult::read_error);
}
