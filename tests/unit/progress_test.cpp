#include "journal/output.h"
#include "journal/zelfwtrace.h"
#include "session/zelflash.h"
#include "support/output_capture.h"
#include "support/temporary_directory.h"
#include "support/trace_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class Progress : public testing::Test {
  protected:
    /// Console text of one call after another; the log holds the same.
    std::string shown(const std::vector<int>& counts) {
        OutputCapture capture;
        for (const int count : counts) {
            session_->display_percentage(count);
        }
        const WrittenOutput output = capture.take();
        EXPECT_EQ(output.log, output.console);
        return output.console;
    }
    /// A whole download of so many transfers.
    std::string shown_download(int transfers) {
        session_->send_count = transfers;
        session_->old_percentage = 0;
        std::vector<int> counts;
        for (int count = 0; count <= transfers; ++count) {
            counts.push_back(count);
        }
        return shown(counts);
    }

    std::unique_ptr<ZELFLASH> session_ = std::make_unique<ZELFLASH>();
};

}  // namespace

TEST_F(Progress, OfSevenTransfersIsSixDotsAndTheEnd) {
    EXPECT_EQ(shown_download(7), "...... %100 complete\n");
}

TEST_F(Progress, OfSevenTransfersStepByStep) {
    session_->send_count = 7;
    session_->old_percentage = 0;
    EXPECT_EQ(shown({0}), "");
    for (int count = 1; count <= 6; ++count) {
        EXPECT_EQ(shown({count}), ".") << count;
        EXPECT_EQ(session_->old_percentage, count * 100 / 7);
    }
    EXPECT_EQ(shown({7}), " %100 complete\n");
    EXPECT_EQ(session_->old_percentage, 100);
    EXPECT_EQ(shown({7}), "");
}

TEST_F(Progress, OfTenTransfersIsALineEach) {
    EXPECT_EQ(shown_download(10),
              " %10  complete\n %20  complete\n %30  complete\n %40  complete\n %50  complete\n"
              " %60  complete\n %70  complete\n %80  complete\n %90  complete\n %100 complete\n");
}

TEST_F(Progress, OfManyTransfersHasNineDotsBetweenTheTens) {
    std::string expected;
    for (const char* tens :
         {"10 ", "20 ", "30 ", "40 ", "50 ", "60 ", "70 ", "80 ", "90 ", "100"}) {
        expected += std::string("......... %") + tens + " complete\n";
    }
    EXPECT_EQ(shown_download(100), expected);
    EXPECT_EQ(shown_download(12345), expected);
}

TEST_F(Progress, OfOneTransferIsTheEnd) {
    EXPECT_EQ(shown_download(1), " %100 complete\n");
}

TEST_F(Progress, BelowZeroBeginsWithABlank) {
    session_->send_count = 7;
    session_->old_percentage = -1;
    EXPECT_EQ(shown({0}), "  %0   complete\n");
    EXPECT_EQ(session_->old_percentage, 0);
    EXPECT_EQ(shown({0}), "");
}

TEST_F(Progress, NeverGoesBack) {
    session_->send_count = 100;
    session_->old_percentage = 0;
    EXPECT_EQ(shown({50, 40, 45, 50, 51}), " %50  complete\n.");
    EXPECT_EQ(session_->old_percentage, 51);
}

TEST_F(Progress, OfNothingShowsNothing) {
    session_->old_percentage = 0;
    for (const int transfers : {0, -1}) {
        session_->send_count = transfers;
        EXPECT_EQ(shown({0, 1, 2}), "");
    }
    session_->send_count = 2;
    EXPECT_NE(shown({1}), "");
}

TEST_F(Progress, OfAHugeCountDoesNotOverflow) {
    session_->send_count = 2147483647;
    session_->old_percentage = 0;
    EXPECT_EQ(shown({1073741825, 2147483647}), " %50  complete\n %100 complete\n");
}

TEST_F(Progress, IsLoggedButNotShownAtTheQuietLevel) {
    OutputLevel = 0;
    session_->send_count = 2;
    session_->old_percentage = 0;
    OutputCapture capture;
    session_->display_percentage(1);
    const WrittenOutput output = capture.take();
    EXPECT_EQ(output.console, "");
    EXPECT_EQ(output.log, " %50  complete\n");
}

TEST_F(Progress, IsNotTraced) {
    const TemporaryDirectory directory;
    trace = std::make_unique<Trace>(directory.path("t").c_str(), 0, 0);
    EXPECT_EQ(shown_download(7), "...... %100 complete\n");
    EXPECT_THAT(trace_texts(directory.path("t")), IsEmpty());
}

namespace {

class HexDump : public testing::Test {
  protected:
    HexDump() { OutputLevel = 3; }

    /// The log of one dump; nothing goes to the console.
    std::string dumped(const std::string& data, int length) {
        OutputCapture capture;
        session_->hex_display("Report written", data.data(), length);
        const WrittenOutput output = capture.take();
        EXPECT_EQ(output.console, "");
        return output.log;
    }
    std::string dumped(const std::string& data) {
        return dumped(data, static_cast<int>(data.size()));
    }

    std::unique_ptr<ZELFLASH> session_ = std::make_unique<ZELFLASH>();
};

}  // namespace

TEST_F(HexDump, ShowsWholeRows) {
    EXPECT_EQ(dumped("0123456789abcdefABCDEFGHIJKLMNOP"),
              "Report written:\n"
              "3:     0000: 30 31 32 33 34 35 36 37 - 38 39 61 62 63 64 65 66 |0123456789abcdef\n"
              "3:     0010: 41 42 43 44 45 46 47 48 - 49 4A 4B 4C 4D 4E 4F 50 |ABCDEFGHIJKLMNOP\n"
              "3:\n");
}

TEST_F(HexDump, FillsUpTheLastRow) {
    EXPECT_EQ(dumped("A"),
              "Report written:\n"
              "3:     0000: 41 -- -- -- -- -- -- -- - -- -- -- -- -- -- -- -- |A               \n"
              "3:\n");
    EXPECT_EQ(dumped("0123456789abcdefABCDEFGH"),
              "Report written:\n"
              "3:     0000: 30 31 32 33 34 35 36 37 - 38 39 61 62 63 64 65 66 |0123456789abcdef\n"
              "3:     0010: 41 42 43 44 45 46 47 48 - -- -- -- -- -- -- -- -- |ABCDEFGH        \n"
              "3:\n");
    EXPECT_EQ(dumped("123456789abcdef"),
              "Report written:\n"
              "3:     0000: 31 32 33 34 35 36 37 38 - 39 61 62 63 64 65 66 -- |123456789abcdef \n"
              "3:\n");
}

TEST_F(HexDump, ShowsOnlyPrintableCharacters) {
    EXPECT_EQ(dumped(std::string("\0\x1f ~\x7f\x80\xa0\xff\n%|\t\x9b\\\"'", 16)),
              "Report written:\n"
              "3:     0000: 00 1F 20 7E 7F 80 A0 FF - 0A 25 7C 09 9B 5C 22 27 |.. ~.....%|..\\\"'\n"
              "3:\n");
}

TEST_F(HexDump, OfNothingIsItsTitle) {
    EXPECT_EQ(dumped("", 0), "Report written:\n");
    EXPECT_EQ(dumped("", -1), "Report written:\n");
}

TEST_F(HexDump, TakesATitleAsText) {
    OutputCapture capture;
    session_->hex_display("100% %s%n", "", 0);
    EXPECT_EQ(capture.take().log, "100% %s%n:\n");
}

TEST_F(HexDump, IsMadeFromLevelThreeOn) {
    for (const int level : {0, 1, 2}) {
        OutputLevel = level;
        EXPECT_EQ(dumped("A"), "") << level;
    }
    OutputLevel = 42;
    EXPECT_EQ(dumped("A"),
              "Report written:\n"
              "42:     0000: 41 -- -- -- -- -- -- -- - -- -- -- -- -- -- -- -- |A               \n"
              "42:\n");
}

TEST_F(HexDump, IsTracedRowByRow) {
    const TemporaryDirectory directory;
    trace = std::make_unique<Trace>(directory.path("t").c_str(), 0, 0);
    dumped("A");
    EXPECT_THAT(
        trace_texts(directory.path("t")),
        ElementsAre(
            "Report written:\n",
            "     0000: 41 -- -- -- -- -- -- -- - -- -- -- -- -- -- -- -- |A               \n",
            "\n"));
}

namespace {

struct LongDump {
    int length;
    int rows;
    const char* last_row;
};

class LongHexDump : public HexDump, public testing::WithParamInterface<LongDump> {};

}  // namespace

TEST_P(LongHexDump, CountsItsRows) {
    const LongDump& given = GetParam();
    const std::string text = dumped(std::string(static_cast<std::size_t>(given.length), 'x'));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), given.rows + 2);
    EXPECT_THAT(text, testing::EndsWith(std::string("\n3:     ") + given.last_row + "3:\n"));
}

INSTANTIATE_TEST_SUITE_P(
    Each, LongHexDump,
    testing::Values(LongDump{4096, 256,
                             "0FF0: 78 78 78 78 78 78 78 78 - 78 78 78 78 78 78 78 78 "
                             "|xxxxxxxxxxxxxxxx\n"},
                    // Filled up below 65520 bytes; from there on only whole rows are shown.
                    LongDump{65505, 4095,
                             "FFE0: 78 -- -- -- -- -- -- -- - -- -- -- -- -- -- -- -- "
                             "|x               \n"},
                    LongDump{65519, 4095,
                             "FFE0: 78 78 78 78 78 78 78 78 - 78 78 78 78 78 78 78 -- "
                             "|xxxxxxxxxxxxxxx \n"},
                    LongDump{65520, 4095,
                             "FFE0: 78 78 78 78 78 78 78 78 - 78 78 78 78 78 78 78 78 "
                             "|xxxxxxxxxxxxxxxx\n"},
                    LongDump{65535, 4095,
                             "FFE0: 78 78 78 78 78 78 78 78 - 78 78 78 78 78 78 78 78 "
                             "|xxxxxxxxxxxxxxxx\n"},
                    LongDump{65536, 4096,
                             "FFF0: 78 78 78 78 78 78 78 78 - 78 78 78 78 78 78 78 78 "
                             "|xxxxxxxxxxxxxxxx\n"},
                    LongDump{65552, 4097,
                             "0000: 78 78 78 78 78 78 78 78 - 78 78 78 78 78 78 78 78 "
                             "|xxxxxxxxxxxxxxxx\n"}),
    [](const auto& given) { return std::to_string(given.param.length); });
