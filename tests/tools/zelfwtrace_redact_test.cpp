// zelfwtrace redact: a copy of a trace that can be handed on.
#include "support/bus_test.h"
#include "trace_bytes.h"
#include "trace_tool.h"

#include <gmock/gmock.h>

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

class ZelfwtraceRedact : public TraceToolTest {
  protected:
    void redact(const std::string& options = "") {
        const ToolRun done = run("redact " + options + " " + quoted(path("trace.bin")) + " -o " +
                                 quoted(path("copy")));
        EXPECT_EQ(done.code, 0) << done.errors;
        copy = read_file(path("copy"));
    }
    std::vector<std::string> copied_words(const std::string& options = "") {
        return words_of(run(options + " --utc " + quoted(path("copy"))).lines());
    }

    std::string copy;
};

}  // namespace

TEST_F(ZelfwtraceRedact, ImageBytesAreZerosAndAllElseOfThemStays) {
    set_trace(TraceBytes()
                  .version()
                  .sent("04 00 01 00")
                  .record(5)
                  .sent("05 00 02 00 00 1e 86")
                  .sent("07 00 02 00 01 ff 00 00 03")
                  .status("01 00")
                  .bytes());
    redact();
    EXPECT_EQ(copied_words(), words());
    EXPECT_THAT(copy, Not(HasSubstr("x")));
    EXPECT_EQ(copied_words("--hex").at(2),
              "3c35  record 1 of 1 (component 0, data 000000, 5 bytes) | "
              "0b 00 02 00 05 00 00 00 00 00 00 00 00");
    EXPECT_THAT(copied_words("--hex").at(4), testing::EndsWith("| 07 00 02 00 01 ff 00 00 03"));
}

TEST_F(ZelfwtraceRedact, RecordsThatWereReadBackAreZerosToo) {
    set_trace(TraceBytes()
                  .sent("06 00 21 00 ff 20 00 00")
                  .data("00 00 02 20 00 07 55 66")
                  .sent("06 00 20 00 ff ff 00 01")
                  .data("01 00 04 ff 00 01 02 03 04 05")
                  .sent("07 00 00 00 00 12 13 14 15")
                  .data("77 78")
                  .process(5)
                  .data("79")
                  .bytes());
    redact();
    EXPECT_THAT(
        copied_words("--hex"),
        ElementsAre(HasSubstr("read all"), testing::EndsWith("| 00 00 02 20 00 07 00 00"),
                    HasSubstr("list query"), testing::EndsWith("| 01 00 04 ff 00 01 02 03 04 05"),
                    testing::EndsWith("| 07 00 00 00 00 00 00 00 00"), testing::EndsWith("| 00 00"),
                    testing::EndsWith("| 00")));
}

TEST_F(ZelfwtraceRedact, SerialNumbersAndFileNamesHaveTheSameStandInEverywhere) {
    set_trace(
        TraceBytes()
            .text("Command line:  zelfwupdate -U -p /home/shop/fw -F main.dat -s PR77 -d 3C35\n")
            .text("  main.dat                    PID: 3c35 COMP: 0 TYPE: FW   EC=01.05\n")
            .text("\nFirmware file found:  /home/shop/fw/main.dat\n")
            .text("  Device - PID: 3c35  COMP: 00 (SN='PR77')\n")
            .text("  Device - PID: 3c35  COMP: 00 (SN='PR 78')\n")
            .text("File '/home/shop/fw/other.dat' is not sent: gone, rc=8\n")
            .bytes());
    redact();
    EXPECT_THAT(
        copied_words(),
        ElementsAre("-     text: Command line:  zelfwupdate -U -p file1 -F file2.dat -s SN0001 -d "
                    "3C35",
                    "-     text:   file2.dat                    PID: 3c35 COMP: 0 TYPE: FW   "
                    "EC=01.05",
                    "-     text: \\nFirmware file found:  file2.dat",
                    "-     text:   Device - PID: 3c35  COMP: 00 (SN='SN0001')",
                    "-     text:   Device - PID: 3c35  COMP: 00 (SN='SN0002')",
                    "-     text: File 'file3.dat' is not sent: gone, rc=8"));
}

TEST_F(ZelfwtraceRedact, NameInFrontOfItsFirstMentionIsReplacedToo) {
    set_trace(TraceBytes().text("PR77 early").text("(SN='PR77')").text("SPR77 PR778 a").bytes());
    redact();
    EXPECT_THAT(copied_words(), ElementsAre("-     text: SN0001 early", "-     text: (SN='SN0001')",
                                            "-     text: SPR77 PR778 a"));
}

TEST_F(ZelfwtraceRedact, NameThatIsAWordOfTheLogIsReplacedWhereANameStandsOnly) {
    const std::string kept[] = {
        "    Starting firmware update of Product ID 3c35 COMP: 0",
        "Erase completed, now sending 123 firmware update records from file",
        "Read device not connected, rc=-4", "  update  "};
    TraceBytes trace;
    trace.text("Command line:  zelfwupdate -U -p firmware -l update -s 123 -s 3c35\n");
    for (const std::string& text : kept) {
        trace.text(text);
    }
    set_trace(trace.text("Looking firmware files in directory firmware\n")
                  .text("  update    PID: 3c35 COMP: 0 TYPE: FW   EC=01.05\n")
                  .text("  Device - PID: 3c35 (SN='3c35') (SN='123')\n")
                  .bytes());
    redact();
    const std::vector<std::string> words = copied_words();
    ASSERT_EQ(words.size(), 8U);
    EXPECT_THAT(words[0], HasSubstr("-p file1 -l file2 -s SN0001 -s SN0002"));
    for (std::size_t i = 0; i < std::size(kept); ++i) {
        EXPECT_THAT(words[i + 1], testing::EndsWith("text: " + kept[i]));
    }
    EXPECT_THAT(words[5], HasSubstr("in directory file1"));
    EXPECT_THAT(words[6], HasSubstr("  file2    PID: 3c35 COMP: 0"));
    EXPECT_THAT(words[7], HasSubstr("PID: 3c35 (SN='SN0002') (SN='SN0001')"));
}

TEST_F(ZelfwtraceRedact, LongestNameThatStandsByItselfIsReplaced) {
    set_trace(TraceBytes()
                  .version()
                  .text("a (SN='SX1') b (SN='SX1-2') c (SN='SX1-2-34')\n")
                  .text("SX1 SX1-2 SX1-2-34 SX1-2-3 SX1-2-345 SX10\n")
                  .bytes());
    redact();
    EXPECT_EQ(copied_words().at(2), "-     text: SN0001 SN0002 SN0003 SN0002-3 SN0002-345 SX10");
}

// As the till of a repair shop may have met them. Each place is looked up, not compared with them
// all.
TEST_F(ZelfwtraceRedact, TensOfThousandsOfNamesAreReplaced) {
    constexpr int count = 30000;
    TraceBytes trace;
    trace.version();
    for (int i = 0; i < count; ++i) {
        trace.text("a (SN='S" + std::to_string(1000000 + i) + "') b\n");
    }
    set_trace(trace.bytes());
    redact();
    const auto words = copied_words();
    ASSERT_EQ(words.size(), std::size_t{count} + 1);
    EXPECT_EQ(words.at(1), "-     text: a (SN='SN0001') b");
    EXPECT_EQ(words.back(), "-     text: a (SN='SN30000') b");
}

TEST_F(ZelfwtraceRedact, FiltersPickWhatIsCopied) {
    set_trace(TraceBytes().version().text("(SN='PR77')").version().text("PR77").bytes());
    redact("--run -1");
    EXPECT_THAT(copied_words(), ElementsAre("-     a run begins", "-     text: SN0001"));
}

TEST_F(ZelfwtraceRedact, NeverReplacesTheTraceItselfAndNeedsAFileThatCanBeReadTwice) {
    set_trace(TraceBytes().version().bytes());
    const std::string file = quoted(path("trace.bin"));
    EXPECT_EQ(run("redact " + file + " -o " + file).code, 1);
    EXPECT_EQ(read_file(path("trace.bin")), TraceBytes().version().bytes());
    const ToolRun piped = run_tool("cat " + file + " | " + quoted(ZELFWTRACE) + " redact - -o -");
    EXPECT_EQ(piped.code, 1);
    EXPECT_THAT(piped.errors, HasSubstr("names are known only of a file that can be read twice"));
    EXPECT_EQ(run("redact " + file + " -o /dev/full").code, 1);
}

class ZelfwtraceRedactRun : public BusTest {};

TEST_F(ZelfwtraceRedactRun, CopyOfAWholeRunSaysTheSameWithoutItsSecrets) {
    SimDevice device;
    device.serial = "TILL4711";
    set_bus({device});
    add_firmware("secretname.dat", {.data_records = 3});
    EXPECT_EQ(update().exit_code, 0);
    const TemporaryDirectory scratch;
    const std::string copy = scratch.path("copy");
    const std::string tool = quoted(ZELFWTRACE);
    EXPECT_THAT(read_file(path("trace.bin")),
                AllOf(HasSubstr("TILL4711"), HasSubstr("secretname")));
    EXPECT_EQ(run_tool(tool + " redact " + quoted(path("trace.bin")) + " -o " + quoted(copy)).code,
              0);
    EXPECT_THAT(read_file(copy), AllOf(Not(HasSubstr("TILL4711")), Not(HasSubstr("secretname"))));
    for (const std::string command : {" show -k sent,status,data ", " summary "}) {
        const ToolRun before = run_tool(tool + command + quoted(path("trace.bin")));
        const ToolRun after = run_tool(tool + command + quoted(copy));
        if (command == " summary ") {
            EXPECT_EQ(after.lines().at(0), before.lines().at(0));
        } else {
            EXPECT_EQ(after.output, before.output);
        }
    }
}
