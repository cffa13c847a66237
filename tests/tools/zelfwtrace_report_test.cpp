// zelfwtrace report: the page of some traces, and that of a fleet.
#include "common/printed.h"
#include "support/files.h"
#include "trace_bytes.h"
#include "trace_tool.h"
#include "zelfwtrace/report/answer_chart.h"
#include "zelfwtrace/report/run_digest.h"

#include <gmock/gmock.h>

#include <cmath>
#include <nlohmann/json.hpp>

using nlohmann::json;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Lt;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;
using zelf::printed;

namespace {

constexpr const char* good_status = "01 00 00 00 00 00 00 00";

/// What each run begins with that updates component 0 of a device.
TraceBytes& begin_update(TraceBytes& trace, const std::string& serial, int records) {
    trace.text("Processing 7a01:3c35:a000-1\n").text("\nFirmware file found:  fw/main.dat\n");
    trace.text("  File   - PID: 3c35  COMP: 00  TYPE: FW   CONTROL: Increasing   EC: 01.05.01\n");
    trace.text(
        "  Device - PID: 3c35  COMP: 00  TYPE: FW   CONTROL: Increasing   EC: 01.02.03 (SN='" +
        serial + "')\n");
    trace.at(100).text("    Starting firmware update of Product ID 3c35 COMP: 0\n");
    trace.sent("04 00 01 00").at(400).status(good_status);
    return trace.text("Erase completed, now sending " + std::to_string(records) +
                      " firmware update records from file\n");
}

TraceBytes& end_update(TraceBytes& trace, int code) {
    return trace.text(
        "Firmware update of Product ID 3c35 COMP: 0 finished, rc=" + std::to_string(code) + "\n");
}

/// Record `number`, from 0, is answered after `time` milliseconds.
void add_record(TraceBytes& trace, int number, int time) {
    trace.at(500 + number * 10).record(20).at(500 + number * 10 + time).status(good_status);
}

TraceBytes& ended(TraceBytes& trace) {
    return trace.text("USB Flash ended at Thu Jan  1 00:00:00 2026\n");
}

std::string good_run(const std::string& serial = "PR1") {
    TraceBytes trace = begun_run();
    begin_update(trace, serial, 3);
    for (int i = 0; i < 3; ++i) {
        add_record(trace, i, 4);
    }
    trace.at(600).sent("05 00 02 00 00 1e 86").at(650).status(good_status);
    end_update(trace, 0);
    return ended(trace).bytes();
}

std::string failed_run() {
    TraceBytes trace = begun_run();
    begin_update(trace, "PR1", 50);
    add_record(trace, 0, 4);
    trace.at(510).record(20).text("Read device not connected, rc=-4\n");
    end_update(trace, 7);
    return ended(trace).bytes();
}

/// Answers of all records but those that are given by number.
std::vector<RecordAnswer> answers(std::size_t count, std::uint32_t time) {
    std::vector<RecordAnswer> records(count);
    for (std::size_t i = 0; i < count; ++i) {
        records[i].milliseconds = time;
        records[i].file_offset = 20 * i;
    }
    return records;
}

class ZelfwtraceReport : public TraceToolTest {
  protected:
    /// The page of what these words name.
    std::string page_of(const std::string& words) {
        done = run("report --utc " + words + " -o " + quoted(path("page.html")));
        return read_file(path("page.html"));
    }
    std::string page_of_trace(const std::string& bytes) {
        set_trace(bytes);
        return page_of(quoted(path("trace.bin")));
    }
    std::string page_of_tills(const json& tills) {
        write_file(path("tills.json"), tills.dump());
        return page_of("--tills " + quoted(path("tills.json")));
    }
    json fleet() { return json::parse(read_file(path("page.json"))); }
    std::string refusal(const std::string& words) { return run("report " + words).errors; }

    ToolRun done;
};

using ZelfwtraceFleet = ZelfwtraceReport;

/// What is gathered of a trace.
class Digested {
  public:
    explicit Digested(const std::string& bytes) {
        const TemporaryDirectory directory;
        write_file(directory.path("trace"), bytes);
        FILE* const file = fopen(directory.path("trace").c_str(), "rb");
        TraceReader reader(file);
        Conversations conversations;
        for (TraceEntry entry; reader.next(entry);) {
            digests.take(entry, conversations.follow(entry));
        }
        digests.finish();
        fclose(file);
    }
    std::vector<std::string> phases() const {
        std::vector<std::string> words;
        for (const Phase& phase : digests.digests().at(0).phases) {
            words.push_back(phase_name(phase.kind) + printed(" %.0f-%.0f", phase.begin, phase.end));
        }
        return words;
    }

    RunDigests digests;
};

}  // namespace

TEST(AnswerTimes, MedianAndPercentileAreAnswersThatCame) {
    std::vector<RecordAnswer> records = answers(100, 2);
    for (std::size_t i = 0; i < 100; ++i) {
        records[i].milliseconds = static_cast<std::uint32_t>(i + 1);
    }
    const AnswerTimes times = answer_times_of(records);
    EXPECT_EQ(times.answers, 100U);
    EXPECT_EQ(times.median, 50U);
    EXPECT_EQ(times.percentile, 99U);
    EXPECT_EQ(times.slowest, 100U);
}

TEST(AnswerTimes, OutliersAreFarFromTheMedianAndNoMoreThanOneInAHundred) {
    std::vector<RecordAnswer> records = answers(200, 10);
    EXPECT_THAT(answer_times_of(records).outliers, IsEmpty());
    records[30].milliseconds = 30;
    EXPECT_THAT(answer_times_of(records).outliers, IsEmpty());
    records[30].milliseconds = 31;
    EXPECT_THAT(answer_times_of(records).outliers, ElementsAre(30));
    for (const std::size_t slow : {50U, 60U, 70U}) {
        records[slow].milliseconds = 400 + static_cast<std::uint32_t>(slow);
    }
    EXPECT_THAT(answer_times_of(records).outliers, ElementsAre(60, 70));
}

TEST(AnswerTimes, EachRecordWithoutAGoodAnswerIsAnOutlier) {
    std::vector<RecordAnswer> records = answers(10, 2);
    for (const std::size_t lost : {3U, 4U, 5U}) {
        records[lost].milliseconds.reset();
    }
    records[8].is_refused = true;
    const AnswerTimes times = answer_times_of(records);
    EXPECT_THAT(times.outliers, ElementsAre(3, 4, 5, 8));
    EXPECT_EQ(times.answers, 6U);
}

TEST(AnswerTimes, WithoutAnyAnswerThereIsNoMedian) {
    std::vector<RecordAnswer> records(2);
    const PageJson chart = answer_chart_of(records, 100);
    EXPECT_FALSE(chart["has_answers"]);
    EXPECT_THAT(chart["outliers"], SizeIs(2));
    EXPECT_EQ(chart["outliers"][0]["answer"], "no answer");
}

TEST(AnswerChart, ThinsOutDotsButNeverOutliers) {
    std::vector<RecordAnswer> records = answers(5000, 2);
    for (std::size_t i = 0; i < 50; ++i) {
        records[i * 100].milliseconds = 500;
    }
    const PageJson chart = answer_chart_of(records, 40);
    const std::string dots = chart["dots"];
    EXPECT_LE(std::count(dots.begin(), dots.end(), 'M'), 40);
    EXPECT_GT(std::count(dots.begin(), dots.end(), 'M'), 20);
    EXPECT_THAT(chart["outliers"], SizeIs(50));
}

TEST(AnswerChart, RecordsOfOnePlaceShareADot) {
    const std::string dots = answer_chart_of(answers(100000, 2), 1000000)["dots"];
    EXPECT_LE(std::count(dots.begin(), dots.end(), 'M'), 1001);
}

TEST(RunDigest, PhasesLastFromAMessageToItsAnswer) {
    EXPECT_THAT(Digested(good_run()).phases(),
                ElementsAre("list 0-0", "erase 100-400", "records 500-524", "checksum 600-650"));
}

TEST(RunDigest, PhaseWithoutAnAnswerLastsAsLongAsTheAttempt) {
    TraceBytes trace = begun_run();
    begin_update(trace, "PR1", 2);
    add_record(trace, 0, 4);
    trace.at(600).sent("05 00 02 00 00 1e 86").at(5600).text("Timeout\n");
    end_update(trace, 7);
    EXPECT_THAT(Digested(ended(trace).bytes()).phases().back(), "checksum 600-5600");
}

TEST(RunDigest, SleepIsOfTheDeviceBeforeIt) {
    TraceBytes trace = begun_run();
    begin_update(trace, "PR1", 1);
    add_record(trace, 0, 4);
    end_update(trace, 0).text("Sleeping for 2000 milliseconds before using device again\n");
    trace.at(9000);
    const Digested digested(ended(trace).bytes());
    EXPECT_EQ(digested.phases().back(), "sleep 504-2504");
    EXPECT_EQ(digested.digests.digests()[0].phases.back().attempt, 1U);
}

TEST(RunDigest, RecordsAreToldWithTheirOffsetInTheFile) {
    const Digested digested(good_run());
    const auto& records = digested.digests.digests()[0].records.at(1);
    ASSERT_THAT(records, SizeIs(3));
    EXPECT_EQ(records[1].file_offset - records[0].file_offset, 24U);
    EXPECT_EQ(records[2].milliseconds, 4U);
}

TEST_F(ZelfwtraceReport, ShowsDevicesLevelsBytesTimeAndRate) {
    const std::string page = page_of_trace(good_run());
    EXPECT_EQ(done.code, 0) << done.errors;
    EXPECT_THAT(
        page, AllOf(HasSubstr("1 of 1 component updated"), HasSubstr("<code>zelfwupdate -U</code>"),
                    HasSubstr(">3c35/0 <small>PR1</small> <small class=\"file\">main.dat"),
                    HasSubstr("<td>01.02.03</td><td>01.05.01</td>"),
                    HasSubstr("<td class=\"n\">550 ms</td>")));
    EXPECT_THAT(page, Not(HasSubstr("What went wrong")));
}

TEST_F(ZelfwtraceReport, SaysOfAFailureWhatExplainSays) {
    const std::string page = page_of_trace(failed_run());
    EXPECT_EQ(done.code, 0);
    EXPECT_THAT(page, AllOf(HasSubstr("What went wrong"), HasSubstr("The device left the bus"),
                            HasSubstr("record 2 of 50, offset "),
                            HasSubstr("<q>Read device not connected, rc=-4</q>"),
                            HasSubstr("id=\"run1-failure2\""), HasSubstr("href=\"#run1-failure2\""),
                            HasSubstr("record 2 <small>at ")))
        << page;
}

TEST_F(ZelfwtraceReport, HasNoScriptAndNothingThatIsLoaded) {
    const std::string page = page_of_trace(failed_run());
    EXPECT_THAT(page, HasSubstr("content=\"default-src 'none'; style-src 'unsafe-inline'\""));
    for (const char* foreign : {"<script", "http:", "https:", "src=", "url(", "@import", "<link"}) {
        EXPECT_THAT(page, Not(HasSubstr(foreign)));
    }
}

TEST_F(ZelfwtraceReport, TextsFromDevicesAndFilesAreEscaped) {
    TraceBytes trace;
    trace.version().text("Command line:  zelfwupdate <script>alert(1)</script>\n");
    begin_update(trace, "<img src=x onerror=alert(1)>\"'", 2);
    trace.text("</td><script>alert(2)</script> \x1b[31m {{title}}\n");
    add_record(trace, 0, 4);
    end_update(trace, 7);
    const std::string page = page_of_trace(ended(trace).bytes());
    EXPECT_THAT(page, AllOf(Not(HasSubstr("<script")), Not(HasSubstr("<img"))));
    EXPECT_THAT(page, HasSubstr("&lt;img src=x onerror=alert(1)&gt;&quot;&apos;"));
    EXPECT_THAT(page,
                HasSubstr("&lt;/td&gt;&lt;script&gt;alert(2)&lt;/script&gt; \\x1b[31m {{title}}"));
}

TEST_F(ZelfwtraceReport, ConversationHasTheLogBetweenTheMessages) {
    const std::string page = page_of_trace(failed_run());
    const std::size_t erase =
        page.find("<td>erase</td><td>completed</td><td class=\"n\">300 ms</td>");
    const std::size_t log = page.find("Erase completed, now sending 50", erase);
    EXPECT_NE(erase, std::string::npos);
    EXPECT_NE(log, std::string::npos);
    EXPECT_NE(page.find("<td>record 2</td><td>no answer</td>", log), std::string::npos);
}

TEST_F(ZelfwtraceReport, RecordsThatWereAllTakenShareALine) {
    TraceBytes trace = begun_run();
    begin_update(trace, "PR1", 40);
    for (int i = 0; i < 40; ++i) {
        add_record(trace, i, i == 19 ? 9 : 2);
    }
    end_update(trace, 0);
    const std::string page = page_of_trace(ended(trace).bytes());
    for (const char* line : {"record 1</td>", "records 2 to 19</td><td>all completed</td>",
                             "record 20</td>", "records 21 to 39</td>", "record 40</td>"}) {
        EXPECT_THAT(page, HasSubstr(line));
    }
    EXPECT_THAT(page, Not(HasSubstr("record 21</td>")));
}

TEST_F(ZelfwtraceReport, ListsOfSeveralDevicesOfAProductHaveALaneOfTheirOwn) {
    TraceBytes trace = begun_run();
    trace.text("Processing 7a01:3c35:a000-1\n").at(50).text("Processing 7a01:3c35:a000-1\n");
    begin_update(trace, "PR1", 1);
    add_record(trace, 0, 4);
    end_update(trace, 0);
    EXPECT_THAT(page_of_trace(ended(trace).bytes()),
                AllOf(HasSubstr("3c35 <small>all, lists</small></span>"),
                      HasSubstr("3c35 <small>PR1</small></span>")));
}

TEST_F(ZelfwtraceReport, SeveralFilesAndRunsAreOnOnePageWithTheirNames) {
    write_file(path("one"), good_run() + failed_run());
    write_file(path("two"), good_run());
    const std::string page = page_of("till-1=" + path("one") + " till-2=" + path("two"));
    EXPECT_EQ(done.code, 0);
    EXPECT_THAT(page, AllOf(HasSubstr("<h1>2 tills, 3 runs</h1>"),
                            HasSubstr("till-1</a> <small>run 2 of 2"),
                            HasSubstr("href=\"#run3\">till-2</a>"), HasSubstr("id=\"run3\"")));
}

TEST_F(ZelfwtraceReport, OneRunCanBePicked) {
    set_trace(failed_run() + good_run());
    const std::string page = page_of("--run -1 " + quoted(path("trace.bin")));
    EXPECT_THAT(page, AllOf(HasSubstr("1 of 1 component updated"), Not(HasSubstr("id=\"run2\""))));
    page_of("--run 3 " + quoted(path("trace.bin")));
    EXPECT_EQ(done.code, 1);
    EXPECT_THAT(done.errors, HasSubstr("there is no run 3, the file has 2 runs"));
}

TEST_F(ZelfwtraceReport, EarlyRunsAreListedOnly) {
    std::string trace;
    for (int i = 0; i < 70; ++i) {
        trace += good_run();
    }
    const std::string page = page_of_trace(trace);
    EXPECT_THAT(page, AllOf(Not(HasSubstr("id=\"run6\"")), HasSubstr("id=\"run7\""),
                            HasSubstr("<small>run 6 of 70</small>"), HasSubstr("id=\"run70\"")));
}

TEST_F(ZelfwtraceReport, FileThatCannotBeReadKeepsNoOtherFromThePage) {
    write_file(path("one"), good_run());
    write_file(path("none"), "no trace at all, and long enough to be read as a header");
    const std::string page = page_of(path("gone") + " " + path("one") + " " + path("none"));
    EXPECT_EQ(done.code, 1);
    EXPECT_THAT(done.errors, AllOf(HasSubstr("gone: No such file or directory"),
                                   HasSubstr("none: this is no trace")));
    EXPECT_THAT(page, HasSubstr("1 of 1 component updated"));
}

TEST_F(ZelfwtraceReport, DamagedTraceIsCalledThat) {
    const std::string page = page_of_trace(failed_run() + "xyz");
    EXPECT_EQ(done.code, 1);
    EXPECT_THAT(page, HasSubstr("The trace is damaged"));
}

TEST_F(ZelfwtraceReport, PageNeverReplacesATrace) {
    set_trace(good_run());
    const std::string trace = quoted(path("trace.bin"));
    EXPECT_THAT(run("report " + trace + " -o " + trace).errors,
                HasSubstr("the page would replace the trace itself"));
    EXPECT_EQ(read_file(path("trace.bin")), good_run());
    EXPECT_THAT(run("report " + trace + " -o " + path("no/such/page")).errors,
                HasSubstr("page: No such file or directory"));
}

TEST_F(ZelfwtraceReport, GoesToStandardOutput) {
    set_trace(good_run());
    done = run("report " + quoted(path("trace.bin")) + " -o -");
    EXPECT_THAT(done.output, AllOf(StartsWith("<!DOCTYPE html>"), HasSubstr("</html>")));
}

TEST_F(ZelfwtraceReport, RefusesWordsThatDoNotGoTogether) {
    EXPECT_THAT(refusal("a"), HasSubstr("'report' needs '-o' and the file to write"));
    EXPECT_THAT(refusal("-o a"), HasSubstr("no file given"));
    EXPECT_THAT(refusal("a -o b -d 3c35"), HasSubstr("'report' takes no filter but '--run'"));
    EXPECT_THAT(refusal("a -o b --json"), HasSubstr("'--json' goes with"));
    EXPECT_THAT(refusal("a -o b --tills c"), HasSubstr("'--tills' names all files: give no other"));
    EXPECT_THAT(refusal("--tills c -o -"), HasSubstr("'--tills' needs a file to write"));
    EXPECT_THAT(refusal("--tills c -o b --run 1"), HasSubstr("'--run' does not go with '--tills'"));
    EXPECT_THAT(run("show --tills c").errors, HasSubstr("'--tills' goes with 'report' only"));
}

TEST_F(ZelfwtraceReport, ManyDevicesAndRecordsStayBelowThreeMegabytes) {
    constexpr int records = 4096;
    // With a sanitizer fewer, none of whose lines must be left out.
    const bool are_many = std::string(ZELF_SANITIZED).empty();
    const int devices = are_many ? 128 : 16;
    TraceBytes image;
    for (int i = 0; i < records; ++i) {
        add_record(image, i, i % 97 == 0 ? 40 : 2 + i % 3);
    }
    std::string trace = begun_run().bytes();
    for (int i = 0; i < devices; ++i) {
        TraceBytes begin, end;
        begin_update(begin, "PR" + std::to_string(i), records);
        end.at(500 + records * 10).sent("05 00 02 00 00 1e 86").status(good_status);
        if (i % 9 == 4) {
            end.text("Read device not connected, rc=-4\n");
        }
        trace += begin.bytes() + image.bytes() + end_update(end, i % 9 == 4 ? 7 : 0).bytes();
    }
    const std::string page = page_of_trace(trace);
    EXPECT_EQ(done.code, 0) << done.errors;
    // Not with a matcher, which would print the page.
    EXPECT_EQ(page.find("lines are left out here") != std::string::npos, are_many);
    EXPECT_NE(page.find("3c35/0 <small>PR" + std::to_string(devices - 1)), std::string::npos);
    EXPECT_NE(page.find("41 outliers"), std::string::npos);
    EXPECT_THAT(page.size(), Lt(3'000'000U));
}

TEST_F(ZelfwtraceFleet, ShowsEachStateWithReasonLevelsAndCause) {
    write_file(path("good"), good_run());
    write_file(path("bad"), failed_run());
    const std::string page =
        page_of_tills({{{"name", "till-1"},
                        {"state", "updated"},
                        {"trace", "good"},
                        {"report", "tills/till-1.html"}},
                       {{"name", "till-2"},
                        {"state", "failed"},
                        {"trace", path("bad")},
                        {"reason", "Look there"}},
                       {{"name", "till-3"}, {"state", "unreachable"}, {"reason", "No route"}},
                       {{"name", "till-4"}, {"state", "held back"}},
                       {{"name", "till-5"}, {"state", "not begun"}},
                       {{"name", "till-6"}, {"state", "current"}, {"trace", nullptr}}});
    EXPECT_EQ(done.code, 0) << done.errors;
    EXPECT_THAT(page, AllOf(HasSubstr("<h1>6 tills</h1>"),
                            HasSubstr("<a href=\"./tills/till-1.html\">till-1</a>"),
                            HasSubstr("<p>Look there</p><p>3c35 COMP 0 (SN=&apos;PR1&apos;): The "
                                      "device left the bus"),
                            HasSubstr("<p>No route</p>")));
    EXPECT_LT(page.find(">till-2<"), page.find(">till-1<"));
    EXPECT_EQ(fleet()["totals"], json({{"tills", 6},
                                       {"failed", 1},
                                       {"unreachable", 1},
                                       {"held back", 1},
                                       {"not begun", 1},
                                       {"updated", 1},
                                       {"current", 1}}));
    const json tills = fleet()["tills"];
    EXPECT_EQ(tills[0]["levels"], json({{{"device", "3c35"},
                                         {"component", "0"},
                                         {"serial", "PR1"},
                                         {"before", "01.02.03"},
                                         {"after", "01.05.01"},
                                         {"outcome", "well"}}}));
    EXPECT_EQ(tills[1]["levels"][0]["after"], "");
    EXPECT_EQ(tills[0]["duration_ms"], 650);
    EXPECT_TRUE(tills[2]["duration_ms"].is_null());
    EXPECT_THAT(
        read_file(path("page.csv")),
        AllOf(StartsWith("\"till\",\"state\",\"duration_s\",\"levels\",\"cause\",\"report\"\r\n"),
              HasSubstr("\"till-1\",\"updated\",\"0.650\",\"3c35/0 (PR1) 01.02.03 -> "
                        "01.05.01\",\"\",\"tills/till-1.html\"\r\n")));
}

TEST_F(ZelfwtraceFleet, ListAfterAnUpdateTellsTheLevel) {
    TraceBytes list;
    list.version().text("Command line:  zelfwupdate -L\n");
    list.text("PID: 3c35  COMP: 00  TYPE: FW   EC: 01.04    (SN='PR1')\n");
    write_file(path("trace"), list.bytes() + failed_run());
    page_of_tills({{{"name", "a"}, {"state", "failed"}, {"trace", "trace"}}});
    EXPECT_EQ(fleet()["tills"][0]["levels"][0]["after"], "");
    write_file(path("trace"), failed_run() + list.bytes());
    page_of_tills({{{"name", "a"}, {"state", "failed"}, {"trace", "trace"}}});
    EXPECT_EQ(fleet()["tills"][0]["levels"][0]["after"], "01.04.00");
}

TEST_F(ZelfwtraceFleet, TillWithoutAnUpdateHasTheLevelsOfItsList) {
    TraceBytes list;
    list.version().text("PID: 3c35  COMP: 01  TYPE: CFG  EC: 02.10    (SN='PR1')\n");
    write_file(path("trace"), list.bytes());
    page_of_tills({{{"name", "a"}, {"state", "current"}, {"trace", "trace"}}});
    const json level = fleet()["tills"][0]["levels"][0];
    EXPECT_EQ(level["before"], "02.10.00");
    EXPECT_EQ(level["outcome"], "");
}

TEST_F(ZelfwtraceFleet, TraceThatCannotBeReadIsToldInItsRow) {
    const std::string page =
        page_of_tills({{{"name", "a"}, {"state", "updated"}, {"trace", "gone"}}});
    EXPECT_EQ(done.code, 1);
    EXPECT_THAT(page, HasSubstr("<p>Trace: No such file or directory</p>"));
    EXPECT_EQ(fleet()["tills"][0]["trace_fault"], "No such file or directory");
}

TEST_F(ZelfwtraceFleet, NamesAreTextAndLinksStayPaths) {
    const std::string page = page_of_tills(
        {{{"name", "<script>"}, {"state", "not begun"}, {"report", "javascript:alert(1)"}},
         {{"name", "b"}, {"state", "not begun"}, {"report", "a b/\"><x>.html"}}});
    EXPECT_THAT(page, AllOf(Not(HasSubstr("<script")), HasSubstr("&lt;script&gt;"),
                            HasSubstr("href=\"./javascript%3Aalert%281%29\""),
                            HasSubstr("href=\"./a%20b/%22%3E%3Cx%3E.html\"")));
}

TEST_F(ZelfwtraceFleet, NoCellIsAFormula) {
    page_of_tills({{{"name", "=1+1"}, {"state", "not begun"}, {"reason", "+\"x\",\ny"}},
                   {{"name", "@a"}, {"state", "not begun"}, {"reason", "-1"}}});
    EXPECT_THAT(read_file(path("page.csv")),
                AllOf(HasSubstr("\"'=1+1\",\"not begun\",\"\",\"\",\"'+\"\"x\"\",\\ny\",\"\"\r\n"),
                      HasSubstr("\"'@a\",\"not begun\",\"\",\"\",\"'-1\"")));
}

TEST_F(ZelfwtraceFleet, RefusesAListThatIsNone) {
    const auto said = [this](const std::string& list) {
        write_file(path("tills.json"), list);
        const ToolRun refused = run("report --tills " + quoted(path("tills.json")) + " -o " +
                                    quoted(path("page.html")));
        EXPECT_EQ(refused.code, 1);
        return refused.errors;
    };
    EXPECT_THAT(said("{"), HasSubstr("tills.json: this is no JSON"));
    EXPECT_THAT(said("{}"), HasSubstr("this is no array"));
    EXPECT_THAT(said("[1]"), HasSubstr("till 1 is no object"));
    EXPECT_THAT(said("[{\"state\": \"failed\"}]"), HasSubstr("till 1 has no name"));
    EXPECT_THAT(said("[{\"name\": \"a\", \"state\": \"odd\"}]"),
                HasSubstr("till 1: 'odd' is no state"));
    EXPECT_THAT(said("[{\"name\": 5, \"state\": \"failed\"}]"),
                HasSubstr("till 1: 'name' is no text"));
    EXPECT_THAT(refusal("--tills " + path("gone") + " -o " + path("page.html")),
                HasSubstr("gone: there is no such file"));
    const std::string itself = quoted(path("tills.json"));
    write_file(path("tills.json"), "[]");
    EXPECT_THAT(run("report --tills " + itself + " -o " + path("tills.html")).errors,
                HasSubstr("tills.json: the report would replace the list itself"));
    EXPECT_EQ(read_file(path("tills.json")), "[]");
}

TEST_F(ZelfwtraceFleet, FiveHundredTillsStayBelowFiveMegabytes) {
    write_file(path("bad"), failed_run());
    json tills = json::array();
    for (int i = 0; i < 500; ++i) {
        tills.push_back({{"name", "till-" + std::to_string(i)},
                         {"state", "failed"},
                         {"trace", "bad"},
                         {"report", "tills/till.html"},
                         {"reason", std::string(300, 'x')}});
    }
    EXPECT_THAT(page_of_tills(tills).size(), Lt(5'000'000U));
    EXPECT_THAT(fleet()["tills"], SizeIs(500));
}
