#include "command_line/usage.h"

#include "journal/output.h"
#include "settings.h"
#include "support/files.h"
#include "support/output_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

using testing::StartsWith;

namespace {

std::string golden(const std::string& name) {
    return read_file(std::string(ZELF_GOLDEN_DIR) + "/" + name);
}

/// What a call writes: to the console, and nothing to the log.
template <typename Call>
std::string printed(Call call) {
    OutputCapture capture;
    call();
    const WrittenOutput output = capture.take();
    EXPECT_EQ(output.log, "");
    return output.console;
}

}  // namespace

TEST(Usage, PrintsTheUsageTextByteForByte) {
    EXPECT_EQ(printed([] { usage(); }), golden("usage.txt"));
}

TEST(Usage, ShowsDefaultTimeoutsWhateverIsSet) {
    information_timeout = 1;
    erase_timeout = 2;
    command_timeout = 3;
    checksum_timeout = 4;
    reset_sleep_timeout = 5;
    EXPECT_EQ(printed([] { usage(); }), golden("usage.txt"));
}

TEST(Usage, PrintsTheHelpTextByteForByte) {
    EXPECT_EQ(printed([] { help(); }), golden("help.txt"));
}

TEST(Usage, PrintsTheOptionHelpByteForByte) {
    EXPECT_EQ(printed([] { option_help(); }), golden("option_help.txt"));
}

TEST(Usage, IsPrintedAtTheQuietLevelToo) {
    OutputLevel = 0;
    EXPECT_EQ(printed([] { usage(); }), golden("usage.txt"));
}

TEST(Usage, ExplainsEveryExitCode) {
    EXPECT_EQ(printed([] {
                  for (int code = 0; code <= 13; ++code) {
                      show_exit_code_description(code);
                  }
              }),
              golden("exit_codes.txt"));
}

TEST(Usage, ShowsTheVersionOnConsoleAndInTheLog) {
    OutputCapture capture;
    show_version(1);
    const WrittenOutput output = capture.take();
    EXPECT_THAT(output.console,
                StartsWith("Quenta Firmware Update Utility\n\nVersion 1.1.3 (i386)\n"));
    EXPECT_EQ(std::count(output.console.begin(), output.console.end(), '\n'), 5);
    EXPECT_EQ(output.console.back(), '\n');
    EXPECT_EQ(output.log, output.console);
}

TEST(Usage, KeepsTheBannerOffTheConsoleWhenAskedTo) {
    OutputCapture capture;
    show_version(0);
    const WrittenOutput output = capture.take();
    EXPECT_EQ(output.console, "");
    EXPECT_THAT(output.log, StartsWith("Quenta Firmware Update Utility\n\nVersion 1.1.3 (i386)\n"));
}
