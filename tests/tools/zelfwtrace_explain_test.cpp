// zelfwtrace explain on built traces.
#include "trace_bytes.h"
#include "trace_tool.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

class ZelfwtraceExplain : public TraceToolTest {
  protected:
    json explained() {
        const ToolRun run = show("explain --json");
        code_ = run.code;
        return run.lines().empty() ? json() : json::parse(run.lines().front());
    }
    std::string explained_words() {
        const ToolRun run = show("explain");
        code_ = run.code;
        return run.output;
    }

    int code_ = -1;
};

TraceBytes begun_update() {
    TraceBytes trace = begun_run();
    trace.at(10).text("Processing 7a01:3c35:a000-1\n").text("\nFirmware file found:  main.dat\n");
    trace.text("  File   - PID: 3c35  COMP: 00  TYPE: FW   CONTROL: Increasing   EC: 01.05.01\n");
    trace.text(
        "  Device - PID: 3c35  COMP: 00  TYPE: FW   CONTROL: Increasing   EC: 01.02.03 "
        "(SN='PR1')\n");
    trace.at(20).text("    Starting firmware update of Product ID 3c35 COMP: 0\n");
    return trace;
}

TraceBytes& ended(TraceBytes& trace, int code) {
    trace.text("Firmware update of Product ID 3c35 COMP: 0 finished, rc=" + std::to_string(code) +
               "\n");
    return trace.text("USB Flash ended at Thu Jan  1 00:00:00 2026\n");
}

/// An erase, and records up to and with the second one, which is not answered.
void add_records(TraceBytes& trace) {
    trace.at(100).sent("04 00 01 00").at(400).status("01 00 00 00 00 00 00 00");
    trace.text("Erase completed, now sending 50 firmware update records from file\n");
    trace.at(500).record(12).at(502).status("01 00 00 00 00 00 00 00");
    trace.at(1500).record(20);
}

}  // namespace

TEST_F(ZelfwtraceExplain, RunThatWentWellHasNoCause) {
    TraceBytes trace = begun_update();
    set_trace(ended(trace, 0).bytes());
    const std::string words = explained_words();
    EXPECT_EQ(code_, 0);
    EXPECT_THAT(words, AllOf(HasSubstr("Command line: zelfwupdate -U\n"),
                             HasSubstr("3c35 COMP 0 (SN='PR1'): update 01.02.03 -> 01.05.01 from "
                                       "main.dat: well\n"),
                             HasSubstr("The run: well\n"), Not(HasSubstr("Cause:"))));
}

TEST_F(ZelfwtraceExplain, FailureIsToldInWordsWithItsEvidence) {
    TraceBytes trace = begun_update();
    add_records(trace);
    const std::size_t evidence = trace.size();
    trace.at(6500).text("Read failed on status of command, rc=7\n");
    trace.text("Firmware update FAILED\n");
    set_trace(ended(trace, 2).bytes());
    const std::string words = explained_words();
    EXPECT_EQ(code_, 3);
    // The first record's 12 bytes stand behind its head of 4 and the file's header of 8.
    EXPECT_THAT(words,
                AllOf(HasSubstr("COMP 0 (SN='PR1')"), HasSubstr(": failed\n"),
                      HasSubstr("record 2 of 50, offset 24 of the firmware file; 1 record was"),
                      HasSubstr("record 2 was the last message"), HasSubstr("no answer in 5.000"),
                      HasSubstr("Cause:       The device did not answer in time.\n"),
                      HasSubstr("State:       The component's image is incomplete;"),
                      HasSubstr("To do:       Run the same update again."),
                      HasSubstr("Evidence:    offset " + std::to_string(evidence) +
                                ", 6.500 s: Read failed on status of command, rc=7\n")));
}

TEST_F(ZelfwtraceExplain, WhatFollowsFromAnUnplugIsAConsequence) {
    TraceBytes trace = begun_update();
    add_records(trace);
    trace.text("Write device not connected, rc=-4 (usage=a001)\n");
    trace.text("Reset to be done for PID 3c35\n").sent("04 00 00 40");
    trace.text("Write timed out, rc=-7 (usage=a001)\n");
    set_trace(ended(trace, 5).bytes());
    const json device = explained()["devices"][1];
    EXPECT_EQ(device["cause"], "device-gone");
    ASSERT_EQ(device["consequences"].size(), 1U);
    EXPECT_EQ(device["consequences"][0]["text"], "Write timed out, rc=-7 (usage=a001)");
}

TEST_F(ZelfwtraceExplain, RunsThatCouldNotBeginAreNamed) {
    const std::pair<const char*, const char*> ends[] = {
        {"Must be 'root' to update firmware devices\n", "not-root"},
        {"Could not load HID libraries (rc=-1)\n", "no-usb-library"},
        {"No firmware files!\n", "no-firmware-files"},
        {"No devices found\n", "no-devices"},
        {"No devices selected\n", "none-selected"},
        {"Flash failed...exception occurred\n", "exception"},
        {"No output file specified\n", "no-output-file"},
    };
    for (const auto& [text, cause] : ends) {
        set_trace(begun_run().text(text).bytes());
        EXPECT_EQ(explained().value("cause", ""), cause) << text;
        EXPECT_EQ(code_, 3);
    }
}

TEST_F(ZelfwtraceExplain, CrashAndSignalAreTheCauseOfAnUnfinishedUpdate) {
    const std::pair<const char*, const char*> ends[] = {
        {"\nSegmentation Fault.. Stopping\n", "crashed"},
        {"\nStopped while nothing moved on the wire: the image of PID: 3c35 COMP: 0 (SN='PR1') is "
         "incomplete. Leave the device plugged in and run the same update again\n",
         "stopped-by-signal"},
    };
    for (const auto& [text, cause] : ends) {
        TraceBytes trace = begun_update();
        add_records(trace);
        set_trace(trace.text(text).bytes());
        const json told = explained();
        EXPECT_EQ(told.value("cause", ""), cause);
        EXPECT_EQ(told["devices"][1].value("cause", ""), cause);
        EXPECT_EQ(told["devices"][1].value("outcome", ""), "unfinished");
    }
}

TEST_F(ZelfwtraceExplain, FilesAndDoubtsAreNamed) {
    const std::pair<const char*, const char*> ends[] = {
        {"File corrupted, stopping update\n", "file-corrupted"},
        {"Firmware update file apparently bad\n", "file-corrupted"},
        {"The result is uncertain: 1 status report could not be read\n", "answer-lost"},
        {"The result is uncertain: 2 status reports more than messages sent\n", "answer-surplus"},
        {"Messages are cut short: record 3 needs 70 bytes, the device's report holds 64 (records "
         "cut short: 9)\n",
         "message-cut"},
    };
    for (const auto& [text, cause] : ends) {
        TraceBytes trace = begun_update();
        add_records(trace);
        trace.text(text);
        set_trace(ended(trace, cause == std::string("file-corrupted") ? 14 : 0).bytes());
        EXPECT_EQ(explained()["devices"][1].value("cause", ""), cause);
    }
}

TEST_F(ZelfwtraceExplain, WhatNothingTellsIsUnknownWithTheLastLines) {
    TraceBytes trace = begun_update();
    trace.text("Something new\n");
    set_trace(ended(trace, 2).bytes());
    const json device = explained()["devices"][1];
    EXPECT_EQ(device["cause"], "unknown");
    EXPECT_THAT(device["evidence"].dump(), HasSubstr("Something new"));
}

TEST_F(ZelfwtraceExplain, ErrorsAfterTheRestartAreExpected) {
    TraceBytes trace = begun_update();
    add_records(trace);
    trace.status("01 00 00 00 00 00 00 00").sent("05 00 02 00 00 12 34");
    trace.status("01 00 00 00 00 00 00 00").sent("04 00 00 40");
    trace.text("Read device not connected, rc=-4\n");
    set_trace(ended(trace, 0).bytes());
    EXPECT_EQ(explained()["devices"][1]["outcome"], "well");
    EXPECT_EQ(code_, 0);
}

TEST_F(ZelfwtraceExplain, RunsOfTwoProcessesAreKeptApart) {
    TraceBytes trace = begun_update();
    trace.process(4712).version().text("Command line:  zelfwupdate -L\n");
    trace.process(4711).text("File corrupted, stopping update\n");
    trace.process(4712).text("USB Flash ended at Thu Jan  1 00:00:00 2026\n");
    trace.process(4711);
    set_trace(ended(trace, 14).bytes());
    const std::vector<std::string> lines = show("explain -j").lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(json::parse(lines[0])["devices"][1]["cause"], "file-corrupted");
    EXPECT_EQ(json::parse(lines[1])["outcome"], "well");
}

TEST_F(ZelfwtraceExplain, DamagedFileIsExplainedAsFarAsItGoes) {
    TraceBytes trace = begun_update();
    trace.text("File corrupted, stopping update\n");
    set_trace(ended(trace, 14).bytes() + "cut");
    const ToolRun run = show("explain");
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.output, HasSubstr("ends before its end mark"));
    EXPECT_THAT(run.errors, HasSubstr("the file ends inside a record's header"));
}

TEST_F(ZelfwtraceExplain, ForeignTextIsNeitherObeyedNorBelieved) {
    TraceBytes trace = begun_run();
    trace.text("Resetting device PID:3c35 SN='\x1b[2J\xff Segmentation Fault.. Stopping'\n");
    trace.sent("04 00 00 40").text("Device PID:3c35 reset successfully\n");
    trace.text("USB Flash ended at Thu Jan  1 00:00:00 2026\n");
    set_trace(trace.bytes());
    EXPECT_THAT(explained_words(), AllOf(HasSubstr("\\x1b[2J"), Not(HasSubstr("\x1b"))));
    EXPECT_EQ(code_, 0);
    EXPECT_EQ(explained()["devices"][0]["outcome"], "well");
}

TEST_F(ZelfwtraceExplain, TellsOneRunWhenAsked) {
    TraceBytes trace = begun_run();
    set_trace(trace.version().text("Command line:  zelfwupdate -R\n").version().bytes());
    const std::vector<std::string> all = show("explain").lines();
    const std::vector<std::string> second = show("explain --run 2").lines();
    EXPECT_THAT(second, testing::Contains(HasSubstr("zelfwupdate -R")));
    EXPECT_THAT(second.at(0), testing::StartsWith("Run 2: "));
    const auto at = std::search(all.begin(), all.end(), second.begin(), second.end());
    EXPECT_NE(at, all.end());
    EXPECT_EQ(show("explain --run -2").lines(), second);
    EXPECT_THAT(show("explain --run -1").lines().at(0), testing::StartsWith("Run 3: "));
    EXPECT_THAT(show("explain --run 4").errors, HasSubstr("there is no run 4"));
}

TEST_F(ZelfwtraceExplain, TakesNoFilter) {
    set_trace(begun_run().bytes());
    for (const char* filter : {"-d 3C35", "-k text", "--from @1", "--to @1"}) {
        const ToolRun run = show(std::string("explain ") + filter);
        EXPECT_EQ(run.code, 2);
        EXPECT_THAT(run.errors, HasSubstr("'explain' takes no filter but '--run'"));
    }
    EXPECT_THAT(show("explain --hex").errors, HasSubstr("'--hex' goes with lines of text only"));
}

TEST_F(ZelfwtraceExplain, EndlessRunsAreRefused) {
    TraceBytes one;
    one.version();
    std::string bytes;
    for (int run = 0; run <= 100000; ++run) {
        bytes += one.bytes();
    }
    set_trace(bytes);
    const ToolRun run = show("explain");
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.errors, HasSubstr("the file holds more than 100000 runs"));
}
