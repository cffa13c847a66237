// zelfwtrace on traces that are built byte by byte: lines of text, filters, JSON, summary, usage.
#include "trace_bytes.h"
#include "trace_tool.h"

#include <gmock/gmock.h>

#include <map>
#include <nlohmann/json.hpp>

using nlohmann::json;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

using Zelfwtrace = TraceToolTest;

constexpr char information[] = "03 00 00 00 01";

std::vector<json> objects(const ToolRun& run) {
    std::vector<json> all;
    for (const std::string& line : run.lines()) {
        all.push_back(json::parse(line));
    }
    return all;
}

/// An image with answers: erase after 300 ms, two records after 2 and 5 ms, checksum after 40 ms.
TraceBytes image() {
    TraceBytes trace;
    trace.version().text("Erasing\n");
    trace.at(1000).sent(erase_report).at(1300).status(completed_report);
    trace.at(1310).record(10).at(1312).status(completed_report);
    trace.at(1320).record(20).at(1325).status(completed_report);
    trace.at(1330).sent(checksum_report).at(1370).status(completed_report);
    return trace;
}

}  // namespace

TEST_F(Zelfwtrace, LineTellsTimeClockProcessThreadAndDevice) {
    set_trace(TraceBytes().at(61234).sent(erase_report).bytes());
    EXPECT_EQ(show().output, "2023-11-14 22:13:20.005    61.234  4711/00007001  3c35  erase\n");
}

TEST_F(Zelfwtrace, EveryCommandHasItsName) {
    set_trace(TraceBytes()
                  .sent("04 00 00 20")
                  .sent("04 00 00 40")
                  .sent(stop_report)
                  .sent(information)
                  .sent(erase_report)
                  .sent("06 00 20 00 02 f3 00 01")
                  .sent("06 00 20 00 ff ff 00 01")
                  .sent("06 00 20 00 ff ff 00 02")
                  .sent("06 00 21 00 ff 20 00 00")
                  .sent(checksum_report)
                  .bytes());
    EXPECT_THAT(words(),
                ElementsAre("3c35  status request", "3c35  reset", "3c35  stop",
                            "3c35  device information query", "3c35  erase",
                            "3c35  component version query (component 3)",
                            "3c35  component list query", "3c35  extended component list query",
                            "3c35  read all records (component 2)", "3c35  checksum (1e.86)"));
}

TEST_F(Zelfwtrace, RecordsOfAnImageAreNumbered) {
    set_trace(TraceBytes()
                  .sent(erase_report)
                  .sent("07 00 02 00 01 ff 00 00 02")
                  .sent("08 00 02 00 02 f2 00 00 41 42")
                  .sent("07 00 02 00 01 20 00 0a 55")
                  .sent(checksum_report)
                  .bytes());
    EXPECT_THAT(words(),
                ElementsAre("3c35  erase", "3c35  record 1 of 3 (information ff0000, 1 byte)",
                            "3c35  record 2 of 3 (component 2, information f20000, 2 bytes)",
                            "3c35  record 3 of 3 (component 2, data 20000a, 1 byte)",
                            "3c35  checksum (1e.86)"));
}

TEST_F(Zelfwtrace, LongestRecordIsARecord) {
    set_trace(TraceBytes().sent(erase_report).record(255).sent(checksum_report).bytes());
    EXPECT_THAT(words(), Contains("3c35  record 1 of 1 (component 0, data 000000, 255 bytes)"));
}

TEST_F(Zelfwtrace, ImageThatDoesNotEndHasNoTotal) {
    for (const char* end : {"04 00 00 40", stop_report, erase_report}) {
        set_trace(
            TraceBytes().sent(erase_report).record(1).sent(end).sent(checksum_report).bytes());
        EXPECT_THAT(words(), Contains("3c35  record 1 (component 0, data 000000, 1 byte)")) << end;
    }
    set_trace(TraceBytes().sent(erase_report).record(1).version().sent(checksum_report).bytes());
    EXPECT_THAT(words(), Contains("3c35  record 1 (component 0, data 000000, 1 byte)"));
}

TEST_F(Zelfwtrace, SecondEraseCountsFromOneAgain) {
    set_trace(TraceBytes()
                  .sent(erase_report)
                  .record(1)
                  .record(2)
                  .sent(erase_report)
                  .record(3)
                  .sent(checksum_report)
                  .bytes());
    EXPECT_THAT(
        words(),
        ElementsAre("3c35  erase", StartsWith("3c35  record 1 ("), StartsWith("3c35  record 2 ("),
                    "3c35  erase", StartsWith("3c35  record 1 of 1 ("), StartsWith("3c35  check")));
}

TEST_F(Zelfwtrace, RecordWithoutItsEraseHasNoNumber) {
    set_trace(TraceBytes().record(1).sent(checksum_report).bytes());
    EXPECT_EQ(words().at(0), "3c35  record (component 0, data 000000, 1 byte)");
}

TEST_F(Zelfwtrace, ImagesOfTwoProcessesAreCountedApart) {
    TraceBytes trace;
    trace.process(1).sent(erase_report).process(2).sent(erase_report).record(1);
    trace.process(1).record(1).record(1).sent(checksum_report).process(2).sent(checksum_report);
    set_trace(trace.bytes());
    EXPECT_THAT(words(), ElementsAre("3c35  erase", "3c35  erase", HasSubstr("record 1 of 1 "),
                                     HasSubstr("record 1 of 2 "), HasSubstr("record 2 of 2 "),
                                     HasSubstr("checksum"), HasSubstr("checksum")));
}

TEST_F(Zelfwtrace, ProcessThatWasSilentLongestIsForgotten) {
    TraceBytes trace;
    trace.process(1).sent(erase_report).record(1);
    for (std::uint32_t process = 100; process < 200; ++process) {
        trace.process(process).sent(stop_report);
    }
    trace.process(1).record(1);
    set_trace(trace.bytes());
    const auto all = words();
    EXPECT_THAT(all[1], StartsWith("3c35  record 1 ("));
    EXPECT_THAT(all.back(), StartsWith("3c35  record ("));
}

TEST_F(Zelfwtrace, StopAndLevelQueryAreToldApartByWhatWasAskedBefore) {
    TraceBytes trace;
    trace.sent(information).sent(information).sent(stop_report).sent(stop_report);
    trace.sent(information).sent(stop_report);
    set_trace(trace.bytes());
    EXPECT_THAT(words(), ElementsAre(HasSubstr("information"), HasSubstr("information"),
                                     "3c35  EC level query", "3c35  stop", HasSubstr("information"),
                                     "3c35  stop"));
}

TEST_F(Zelfwtrace, StatusTellsItsFlags) {
    const std::map<std::string, std::string> flags = {
        {"01 00", "status completed"},
        {"80 00", "status rejected"},
        {"40 00", "status operation error"},
        {"c1 00", "status rejected, operation error, completed"},
        {"00 00", "status flags 00"},
        {"21 00", "status completed, flags 21"},
        {"", "status of no bytes"},
        {"05 02 01 08 07 03 04 00",
         "status completed, EC level 01.02 build 03, before 07.08 build 04"},
        {"09 21 04 01 d0 00 00 00",
         "status completed, device type 21, ID 04, command set 01, features d0"},
    };
    for (const auto& [report, text] : flags) {
        set_trace(TraceBytes().status(report).bytes());
        EXPECT_THAT(words(), ElementsAre("3c35  " + text));
    }
}

TEST_F(Zelfwtrace, StatusTellsWhatItAnswersAndAfterHowLong) {
    set_trace(image().bytes());
    const auto all = words("-k status");
    EXPECT_THAT(all, ElementsAre("3c35  status completed (erase, 300 ms)",
                                 "3c35  status completed (record, 2 ms)",
                                 "3c35  status completed (record, 5 ms)",
                                 "3c35  status completed (checksum, 40 ms)"));
}

TEST_F(Zelfwtrace, SecondStatusAnswersNothing) {
    set_trace(
        TraceBytes().sent(erase_report).status(completed_report).status(completed_report).bytes());
    EXPECT_EQ(words().at(2), "3c35  status completed");
}

TEST_F(Zelfwtrace, AnswerStampedBeforeItsCommandTookNoTime) {
    set_trace(TraceBytes().at(50).sent(erase_report).at(49).status(completed_report).bytes());
    EXPECT_EQ(words().at(1), "3c35  status completed (erase, 0 ms)");
}

TEST_F(Zelfwtrace, DataAnswerIsNamedAfterItsQuery) {
    TraceBytes trace;
    trace.sent("06 00 20 00 ff ff 00 01").data("01 00 08 ff 00 01 00 02 01 00 01 02 03 00");
    trace.sent("06 00 20 00 ff ff 00 02").data("01 00 05 ff 00 02 00 02 01 00 01");
    trace.sent("06 00 20 00 02 f3 00 01").data("01 00 02 f3 00 01 04 03");
    trace.sent("06 00 21 00 ff 20 00 00").data("00 00 02 20 00 00 55 66");
    trace.data("01 00 01 20 00 01 55").data("01 00 00 1e 86");
    set_trace(trace.bytes());
    EXPECT_THAT(
        words("-k data"),
        ElementsAre("3c35  data: component list, 2 entries",
                    "3c35  data: extended component list, 1 entry",
                    "3c35  data: component version 03.04", "3c35  data: record of 2 bytes",
                    "3c35  data: record of 1 bytes, last block", "3c35  data: end of the records"));
}

TEST_F(Zelfwtrace, ListThatClaimsMoreThanWasReadIsNotCounted) {
    set_trace(TraceBytes()
                  .sent("06 00 20 00 ff ff 00 01")
                  .data("01 00 fc ff 00 01 00 02 01 00")
                  .data("01 00 03 ff 00 01 00 02 01 00")
                  .data("01")
                  .bytes());
    EXPECT_THAT(words("-k data"), ElementsAre("3c35  data: component list of 252 bytes",
                                              "3c35  data: component list of 3 bytes",
                                              "3c35  data: component list, 0 entries"));
}

TEST_F(Zelfwtrace, UnknownMessageTellsItsSize) {
    set_trace(TraceBytes()
                  .sent("04 00 01")
                  .sent("07 00 02 00 02 00 00 00 11")
                  .sent("")
                  .data("01 02")
                  .bytes());
    EXPECT_THAT(words(),
                ElementsAre("3c35  unknown message (3 bytes)", "3c35  unknown message (9 bytes)",
                            "3c35  unknown message (0 bytes)", "3c35  data: 2 bytes"));
}

TEST_F(Zelfwtrace, TextIsOneLineWithoutControlCharacters) {
    set_trace(TraceBytes()
                  .version()
                  .text("plain\n")
                  .text("two\nlines\tand \x1b[31mred\\ \xc2\x9b \xff \xc3\xa9\n\n")
                  .text("")
                  .bytes());
    EXPECT_THAT(
        words(),
        ElementsAre("-     a run begins", "-     text: plain",
                    "-     text: two\\nlines\\tand \\x1b[31mred\\\\ \\xc2\\x9b \\xff \xc3\xa9\\n",
                    "-     text: "));
}

TEST_F(Zelfwtrace, BytesAreShownOnDemand) {
    set_trace(TraceBytes().text("x").sent(erase_report).status("01 ff").bytes());
    EXPECT_THAT(words("--hex"), ElementsAre("-     text: x", "3c35  erase | 04 00 01 00",
                                            "3c35  status completed (erase, 0 ms) | 01 ff"));
}

TEST_F(Zelfwtrace, LocalTimesFollowTheTimeZone) {
    set_trace(TraceBytes().version().bytes());
    const ToolRun local =
        run_tool("TZ=UTC-3 " + quoted(ZELFWTRACE) + " " + quoted(path("trace.bin")));
    EXPECT_THAT(local.output, StartsWith("2023-11-15 01:13:20.005 "));
}

TEST_F(Zelfwtrace, TimesUpToTheLastSecondOfTheFieldAreShown) {
    set_trace(TraceBytes().seconds(4'294'967'295).version().bytes());
    EXPECT_THAT(show().output, StartsWith("2106-02-07 06:28:15.005 "));
}

TEST_F(Zelfwtrace, TextTellsTheRecordsOfAnImageThatWasBrokenOff) {
    const std::string sending =
        "Erase completed, now sending 50 firmware update records from file\n";
    TraceBytes trace;
    trace.sent(erase_report).process(2).text(sending).process(4711).record(1);
    trace.sent(erase_report).text(sending).record(1).record(1).sent(erase_report).record(1);
    trace.sent(erase_report).text("Erase completed, now sending 1 firmware").record(1).record(2);
    trace.sent(erase_report).text("Erase completed, now sending 9999999 firmware").record(1);
    set_trace(trace.bytes());
    std::vector<std::string> records;
    for (const std::string& line : words("-k sent")) {
        if (line.find("record") != std::string::npos) {
            records.push_back(line.substr(0, line.find(" (")));
        }
    }
    EXPECT_THAT(records, ElementsAre("3c35  record 1", "3c35  record 1 of 50",
                                     "3c35  record 2 of 50", "3c35  record 1",
                                     "3c35  record 1 of 1", "3c35  record 2", "3c35  record 1"));
}

TEST_F(Zelfwtrace, RunIsPickedByItsNumberFromEitherEnd) {
    TraceBytes trace;
    trace.text("none").process(1).version().text("a").process(2).version().text("b");
    trace.process(1).text("a").version().text("c").process(2).text("b");
    set_trace(trace.bytes());
    const auto run = [](const std::string& text, int texts) {
        std::vector<std::string> all(static_cast<std::size_t>(texts), "-     text: " + text);
        all.insert(all.begin(), "-     a run begins");
        return all;
    };
    EXPECT_EQ(words("--run 1"), run("a", 2));
    EXPECT_EQ(words("--run 2"), run("b", 2));
    EXPECT_EQ(words("--run 3"), run("c", 1));
    EXPECT_EQ(words("--run -1"), run("c", 1));
    EXPECT_EQ(words("--run -3"), run("a", 2));
    EXPECT_EQ(words("--run -1 -k text"), std::vector<std::string>{"-     text: c"});
    EXPECT_THAT(show("summary --run -2").output, StartsWith("1 run, 2 texts, 0 devices\n"));
}

TEST_F(Zelfwtrace, RunThatIsNotThereIsAFailure) {
    set_trace(TraceBytes().version().version().bytes());
    for (const std::string number : {"3", "-3"}) {
        const ToolRun run = show("--run " + number);
        EXPECT_EQ(run.code, 1);
        EXPECT_EQ(run.errors, "zelfwtrace: " + path("trace.bin") + ": there is no run " + number +
                                  ", the file has 2 runs\n");
    }
}

TEST_F(Zelfwtrace, RunOfAPipeIsCountedFromItsBeginningOnly) {
    set_trace(TraceBytes().version().text("a").version().text("b").bytes());
    const std::string piped = "cat " + quoted(path("trace.bin")) + " | " + quoted(ZELFWTRACE);
    EXPECT_THAT(words_of(run_tool(piped + " --run 2 -").lines()),
                ElementsAre("-     a run begins", "-     text: b"));
    const ToolRun last = run_tool(piped + " --run -1 -");
    EXPECT_EQ(last.code, 1);
    EXPECT_THAT(last.errors, HasSubstr("known only of a file that can be read twice"));
}

TEST_F(Zelfwtrace, FollowsAFileThatGrows) {
    const std::string more = image().bytes();
    set_trace(TraceBytes().version().bytes());
    write_file(path("half"), more.substr(0, 40));
    write_file(path("rest"), more.substr(40));
    const std::string shown = quoted(path("shown"));
    const ToolRun run =
        run_tool(quoted(ZELFWTRACE) + " show --follow " + quoted(path("trace.bin")) + " >" + shown +
                 " & reader=$!; cat " + quoted(path("half")) + " >>" + quoted(path("trace.bin")) +
                 "; for i in $(seq 200); do [ -s " + shown + " ] && break; sleep 0.1; done; cat " +
                 quoted(path("rest")) + " >>" + quoted(path("trace.bin")) +
                 "; for i in $(seq 200); do [ $(wc -l <" + shown +
                 ") = 11 ] && break; sleep 0.1; done; kill $reader; { wait $reader; } "
                 "2>/dev/null; cat " +
                 shown);
    EXPECT_THAT(words_of(run.lines()),
                AllOf(testing::SizeIs(11), Contains(StartsWith("3c35  record 2 "))));
}

TEST_F(Zelfwtrace, PipeIsReadOnceAndNamesNoTotals) {
    set_trace(image().bytes());
    const ToolRun run =
        run_tool("cat " + quoted(path("trace.bin")) + " | " + quoted(ZELFWTRACE) + " -");
    EXPECT_EQ(run.code, 0);
    EXPECT_THAT(words_of(run.lines()),
                AllOf(testing::SizeIs(10),
                      Contains("3c35  record 2 (component 0, data 000000, 20 bytes)")));
}

TEST_F(Zelfwtrace, RedirectedInputIsReadTwice) {
    set_trace(image().bytes());
    const ToolRun run = run_tool(quoted(ZELFWTRACE) + " - < " + quoted(path("trace.bin")));
    EXPECT_THAT(words_of(run.lines()), Contains(HasSubstr("record 2 of 2 ")));
}

TEST_F(Zelfwtrace, DeviceFilterLeavesOutAllElse) {
    TraceBytes trace;
    trace.version().text("x").product(0x3C02).sent(erase_report).product(0x3C75).sent(stop_report);
    trace.product(0x3C35).sent(erase_report);
    set_trace(trace.bytes());
    EXPECT_THAT(words("-d 3c35"), ElementsAre("3c35  erase"));
    EXPECT_THAT(words("--device 3C02,3c75"), ElementsAre("3c02  erase", "3c75  stop"));
    EXPECT_THAT(words("-d 3C02 -d 3c35"), ElementsAre("3c02  erase", "3c35  erase"));
    EXPECT_THAT(words("-d ffff"), IsEmpty());
}

TEST_F(Zelfwtrace, KindFilterTakesEachKind) {
    TraceBytes trace;
    trace.version().text("x").sent(erase_report).status(completed_report).data("01");
    set_trace(trace.bytes());
    EXPECT_THAT(words("-k version"), ElementsAre("-     a run begins"));
    EXPECT_THAT(words("-k text"), ElementsAre("-     text: x"));
    EXPECT_THAT(words("--kind sent"), ElementsAre("3c35  erase"));
    EXPECT_THAT(words("-k data"), ElementsAre("3c35  data: 1 bytes"));
    EXPECT_THAT(words("-k version,text -k status"),
                ElementsAre(HasSubstr("run"), HasSubstr("text"), HasSubstr("status")));
}

TEST_F(Zelfwtrace, TimeFilterTakesBothEnds) {
    TraceBytes trace;
    for (const std::uint32_t second : {1'700'000'000U, 1'700'000'001U, 1'700'000'002U}) {
        trace.seconds(second).text(std::to_string(second % 10));
    }
    set_trace(trace.bytes());
    EXPECT_THAT(words("--from '2023-11-14 22:13:21.005'"),
                ElementsAre("-     text: 1", "-     text: 2"));
    EXPECT_THAT(words("--from 2023-11-14T22:13:21.006"), ElementsAre("-     text: 2"));
    EXPECT_THAT(words("--to @1700000001.005"), ElementsAre("-     text: 0", "-     text: 1"));
    EXPECT_THAT(words("--to @1700000001"), ElementsAre("-     text: 0"));
    EXPECT_THAT(words("--to @1700000001.004"), ElementsAre("-     text: 0"));
    EXPECT_THAT(words("--from @1700000001 --to '2023-11-14 22:13:22'"),
                ElementsAre("-     text: 1"));
    EXPECT_THAT(words("--from '2023-11-14 22:14'"), IsEmpty());
    EXPECT_THAT(words("--from 2023-11-14"), testing::SizeIs(3));
    EXPECT_THAT(words("--from '2023-11-14 22'"), testing::SizeIs(3));
    EXPECT_THAT(words("--from '2023-11-14 23'"), IsEmpty());
    EXPECT_THAT(words("--from 22:13:21"), IsEmpty());
}

TEST_F(Zelfwtrace, FilteredRecordsKeepTheirNumbersAndAnswerTimes) {
    set_trace(image().bytes());
    EXPECT_THAT(words("-k sent --from @1700000000 -d 3c35"), Contains(HasSubstr("record 2 of 2")));
    EXPECT_THAT(words("-k status"), Contains(HasSubstr("(checksum, 40 ms)")));
}

TEST_F(Zelfwtrace, EveryJsonLineIsAnObjectOfItsRecord) {
    set_trace(image().bytes());
    const ToolRun run = show("--json");
    EXPECT_EQ(run.code, 0);
    const std::vector<json> all = objects(run);
    ASSERT_EQ(all.size(), 10U);
    EXPECT_EQ(all[0], json::parse(R"({"offset": 0, "kind": "version", "process": 4711,
        "time": "2023-11-14T22:13:20.005Z", "clock_ms": 0, "thread": 28673})"));
    EXPECT_EQ(all[6], json::parse(R"({"offset": 270, "kind": "sent", "process": 4711,
        "time": "2023-11-14T22:13:20.005Z", "clock_ms": 1320, "thread": 28673, "device": "3c35",
        "usage": "a001", "message": "record", "component": 0, "record": 2, "records": 2,
        "details": "component 0, data 000000, 20 bytes",
        "bytes": "1a000200140000007878787878787878787878787878787878787878"})"));
    EXPECT_EQ(all[9]["message"], "status");
    EXPECT_EQ(all[9]["answers"], "checksum");
    EXPECT_EQ(all[9]["answers_offset"], all[8]["offset"]);
    EXPECT_EQ(all[9]["answer_ms"], 40);
}

TEST_F(Zelfwtrace, JsonTextsAreEscaped) {
    const std::string text = "\"quoted\" \\ \n\t\r\b\x1f\x7f \xc3\xa9 \xf0\x9f\x96\xa8";
    set_trace(TraceBytes().text(text).bytes());
    const ToolRun run = show("-j");
    EXPECT_EQ(objects(run).at(0)["text"], text);
    EXPECT_THAT(run.lines(), testing::SizeIs(1));
}

TEST_F(Zelfwtrace, BytesThatAreNoUtf8BecomeCharactersOfTheirNumber) {
    // A lone byte, one that goes on, a cut character, too long a form, a surrogate, past the end.
    const std::map<std::string, std::string> texts = {
        {"\xff", "\\u00ff"},
        {"\x80x", "\\u0080x"},
        {"\xe2\x82", "\\u00e2\\u0082"},
        {"\xc0\xaf", "\\u00c0\\u00af"},
        {"\xed\xa0\x80", "\\u00ed\\u00a0\\u0080"},
        {"\xf4\x90\x80\x80", "\\u00f4\\u0090\\u0080\\u0080"},
    };
    for (const auto& [text, escaped] : texts) {
        set_trace(TraceBytes().text(text).bytes());
        const ToolRun run = show("-j");
        EXPECT_THAT(run.output, HasSubstr("\"text\": \"" + escaped + "\""));
        EXPECT_EQ(objects(run).size(), 1U);
    }
    set_trace(TraceBytes().text(std::string("a\0b", 3)).bytes());
    EXPECT_THAT(show("-j").output, HasSubstr("\"text\": \"a\\u0000b\""));
}

TEST_F(Zelfwtrace, SummaryCountsMessagesBytesAndAnswers) {
    TraceBytes trace = image();
    trace.data("01 02 03")
        .product(0x3C02)
        .at(2000)
        .sent(erase_report)
        .at(2001)
        .status("80 00")
        .sent(stop_report);
    set_trace(trace.bytes());
    const ToolRun run = show("summary");
    EXPECT_EQ(run.code, 0);
    EXPECT_THAT(run.lines().at(0), "1 run, 1 text, 2 devices");
    const std::string first = run.output.substr(0, run.output.find("Device 3c35"));
    EXPECT_THAT(first, AllOf(HasSubstr("Sent      2 messages, 8 bytes\n"),
                             HasSubstr("Received  1 status, 2 bytes; 0 data answers, 0 bytes\n"),
                             HasSubstr("Refused   1 rejected, 0 operation errors\n"),
                             HasSubstr("Slowest   erase, 1 ms, at offset ")));
    const std::string second = run.output.substr(first.size());
    EXPECT_THAT(second, AllOf(HasSubstr("Sent      4 messages, 57 bytes\n"),
                              HasSubstr("Received  4 statuses, 32 bytes; 1 data answer, 3 bytes\n"),
                              HasSubstr("Slowest   erase, 300 ms, at offset 72\n"),
                              HasSubstr("  record                                2         46"
                                        "        2        3.5          5\n")));
}

TEST_F(Zelfwtrace, HistogramCountsAnswersByTheirTimes) {
    TraceBytes trace;
    double clock = 0;
    for (const int time : {0, 1, 1, 2, 3, 9}) {
        trace.at(clock).sent(erase_report).at(clock + time).status(completed_report);
        clock += 100;
    }
    set_trace(trace.bytes());
    const ToolRun run = show("summary");
    EXPECT_THAT(run.output, HasSubstr("     Answer time in ms  Answers\n"
                                      "                     0        1  ####################\n"
                                      "                     1        2  "
                                      "########################################\n"
                                      "                2 to 3        2  "
                                      "########################################\n"
                                      "                4 to 7        0\n"
                                      "               8 to 15        1  ####################\n"));
}

TEST_F(Zelfwtrace, SummaryIsAlsoJson) {
    set_trace(image().product(0x3C02).sent(stop_report).bytes());
    const std::vector<json> all = objects(show("summary --json"));
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[0]["device"], "3c02");
    EXPECT_EQ(all[0]["messages"],
              json::parse(R"([{"message": "stop", "count": 1, "bytes": 4, "answers": 0}])"));
    EXPECT_EQ(all[0]["answer_times"], json::array());
    EXPECT_EQ(all[1]["sent"], 4);
    EXPECT_EQ(all[1]["sent_bytes"], 57);
    EXPECT_EQ(all[1]["statuses"], 4);
    EXPECT_EQ(all[1]["messages"][0],
              json::parse(
                  R"({"message": "erase", "count": 1, "bytes": 4, "answers": 1, "mean_ms": 300.0,
            "slowest_ms": 300, "slowest_offset": 72})"));
    EXPECT_EQ(all[1]["answer_times"][3],
              json::parse(R"({"from_ms": 256, "to_ms": 511, "answers": 1})"));
}

TEST_F(Zelfwtrace, SummaryCountsWhatPassesTheFilter) {
    set_trace(image().product(0x3C02).sent(stop_report).bytes());
    const std::vector<json> all = objects(show("summary -j -k sent -d 3c35"));
    ASSERT_EQ(all.size(), 1U);
    EXPECT_EQ(all[0]["sent"], 4);
    EXPECT_EQ(all[0]["statuses"], 0);
}

TEST_F(Zelfwtrace, WrongArgumentsAreUsageErrors) {
    set_trace(image().bytes());
    const std::string file = " " + quoted(path("trace.bin"));
    const std::vector<std::string> options = {file,
                                              "--nonsense",
                                              "-d 3c3",
                                              "-d 0x3c35",
                                              "-d 3c35,",
                                              "-k answer",
                                              "-k ''",
                                              "--from yesterday",
                                              "--from 2023-13-01",
                                              "--from 2023-02-29",
                                              "--to '2023-11-14 24:00'",
                                              "--to @99999999999",
                                              "--from @1 --from @2",
                                              "--run 0",
                                              "--run last",
                                              "--run 1,2",
                                              "--run 1 --run 2",
                                              "summary --follow",
                                              "pcap --follow -o x",
                                              "--to 24:00",
                                              "redact",
                                              "redact -o x --json",
                                              "--utc pcap -o x",
                                              "pcap",
                                              "pcap -o x --json",
                                              "pcap -o x --hex",
                                              "pcap -o a -o b",
                                              "pcap -o ''",
                                              "show -o x",
                                              "--output x",
                                              "summary -o x",
                                              "--hex --json",
                                              "summary --hex"};
    std::vector<std::string> wrong = {"", "-k", "show", "summary", "pcap -o x"};
    for (const std::string& one : options) {
        wrong.push_back(one + file);
    }
    for (const std::string& arguments : wrong) {
        const ToolRun result = run(arguments);
        EXPECT_EQ(result.code, 2) << arguments;
        EXPECT_THAT(result.errors,
                    AllOf(StartsWith("zelfwtrace: "), HasSubstr("\nTry 'zelfwtrace --help'.\n")));
        EXPECT_THAT(result.output, IsEmpty());
    }
}

TEST_F(Zelfwtrace, ShowsWithoutACommandToo) {
    set_trace(image().bytes());
    const ToolRun shown = show("show --hex");
    EXPECT_EQ(shown.code, 0) << shown.errors;
    EXPECT_THAT(shown.output, HasSubstr("erase"));
    EXPECT_EQ(show("--hex").output, shown.output);
}

TEST_F(Zelfwtrace, FileThatHasACommandsNameIsNamedBehindTheCommand) {
    write_file(path("summary"), TraceBytes().version().bytes());
    const ToolRun run =
        run_tool("cd " + quoted(path("")) + " && " + quoted(ZELFWTRACE) + " show summary");
    EXPECT_EQ(run.code, 0) << run.errors;
    EXPECT_THAT(run.output, HasSubstr("a run begins"));
}

TEST_F(Zelfwtrace, ReasonNamesTheWrongArgument) {
    EXPECT_THAT(run("pcap x").errors,
                StartsWith("zelfwtrace: 'pcap' needs '-o' and the file to write\n"));
    EXPECT_THAT(run("summary -o y x").errors,
                StartsWith("zelfwtrace: '-o' goes with 'pcap', 'redact' and 'report' only\n"));
    EXPECT_THAT(
        run("pcap -j -o y x").errors,
        StartsWith("zelfwtrace: '--json' goes with 'show', 'summary' and 'explain' only\n"));
    EXPECT_THAT(run("--nonsense x").errors,
                StartsWith("zelfwtrace: unknown option '--nonsense'\n"));
    EXPECT_THAT(
        run("-k answer x").errors,
        StartsWith("zelfwtrace: 'answer' is no kind of record; the kinds are version, text, "
                   "sent, status, data\n"));
    EXPECT_THAT(run("--to noon x").errors, StartsWith("zelfwtrace: 'noon' is no time\n"));
}

TEST_F(Zelfwtrace, HelpAndVersionNeedNoFile) {
    const ToolRun help = run("-h");
    EXPECT_EQ(help.code, 0);
    EXPECT_THAT(help.output, StartsWith("NAME\n  zelfwtrace - "));
    EXPECT_EQ(run("--help").output, help.output);
    EXPECT_EQ(run("--version").output, "zelfwtrace " ZELF_VERSION "\n");
    for (const std::string command : {"show", "summary", "pcap", "redact"}) {
        EXPECT_THAT(help.output, HasSubstr("\n  zelfwtrace " + command + " "));
        EXPECT_EQ(run(command + " --help").output, help.output);
        EXPECT_EQ(run(command + " --version").output, "zelfwtrace " ZELF_VERSION "\n");
    }
}

TEST_F(Zelfwtrace, FileWhoseNameBeginsWithADashIsNamedBehindTwo) {
    write_file(path("-j"), TraceBytes().version().bytes());
    const ToolRun run = run_tool("cd " + quoted(path("")) + " && " + quoted(ZELFWTRACE) + " -- -j");
    EXPECT_EQ(run.code, 0);
    EXPECT_THAT(run.output, HasSubstr("a run begins"));
}

TEST_F(Zelfwtrace, OutputThatCannotBeWrittenIsAFailure) {
    set_trace(image().bytes());
    const ToolRun run =
        run_tool(quoted(ZELFWTRACE) + " " + quoted(path("trace.bin")) + " > /dev/full");
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.errors, HasSubstr("zelfwtrace: standard output: No space left on device"));
}
