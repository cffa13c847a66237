// zelfwtrace on the traces of whole runs of the updater on the simulated bus.
#include "support/bus_test.h"
#include "support/hexadecimal.h"
#include "trace_tool.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

using nlohmann::json;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

class ZelfwtraceRun : public BusTest {
  protected:
    ToolRun show(const std::string& options) const { return show_file(options, path("trace.bin")); }
    ToolRun show_file(const std::string& options, const std::string& file) const {
        return run_tool(quoted(ZELFWTRACE) + " " + options + " " + quoted(file));
    }
    std::vector<json> objects(const std::string& options) const {
        const ToolRun run = show(options + " --json");
        EXPECT_EQ(run.code, 0) << run.errors;
        std::vector<json> all;
        for (const std::string& line : run.lines()) {
            all.push_back(json::parse(line));
        }
        return all;
    }
    std::vector<std::string> bytes_of(const std::string& kind) const {
        std::vector<std::string> all;
        for (const json& object : objects("-k " + kind)) {
            all.push_back(object["bytes"]);
        }
        return all;
    }
    /// An update of the printer with five records in all.
    void update_printer() {
        set_bus({SimDevice{}});
        add_firmware("main.dat", {.data_records = 3});
        EXPECT_EQ(update().exit_code, 0);
    }

    TemporaryDirectory scratch_;
};

}  // namespace

TEST_F(ZelfwtraceRun, UpdateReadsCommandByCommand) {
    SimDevice device;
    device.components = {{}, {.id = 1}};
    set_bus({device});
    add_firmware("boot.dat", {.component = 1, .data_records = 3});
    EXPECT_EQ(update().exit_code, 0);
    EXPECT_THAT(words_of(show("-d 3c35 -k sent").lines()),
                ElementsAreArray({
                    MatchesRegex("3c35  device information query"),
                    MatchesRegex("3c35  device information query"),
                    MatchesRegex("3c35  EC level query"),
                    MatchesRegex("3c35  extended component list query"),
                    MatchesRegex("3c35  stop"),
                    MatchesRegex("3c35  erase"),
                    MatchesRegex("3c35  record 1 of 5 \\(information ff0000, 1 byte\\)"),
                    MatchesRegex("3c35  record 2 of 5 \\(information ff0002, 5 bytes\\)"),
                    MatchesRegex("3c35  record 3 of 5 \\(component 1, data 100000, 8 bytes\\)"),
                    MatchesRegex("3c35  record 4 of 5 \\(component 1, data 100001, 8 bytes\\)"),
                    MatchesRegex("3c35  record 5 of 5 \\(component 1, data 100002, 8 bytes\\)"),
                    MatchesRegex("3c35  checksum \\(....5?.*\\)"),
                    MatchesRegex("3c35  stop"),
                }));
}

TEST_F(ZelfwtraceRun, EveryMessageOfARunHasItsName) {
    update_printer();
    for (const json& object : objects("-k sent")) {
        EXPECT_NE(object["message"], "unknown message") << object;
    }
}

TEST_F(ZelfwtraceRun, BytesAreThoseThatWentOverTheWire) {
    update_printer();
    EXPECT_THAT(bytes_of("sent"), ElementsAreArray(commands("printer")));
    std::vector<std::string> reports;
    for (const Transfer& one : record().of_kind("printer", "interrupt")) {
        if (one.result == 0) {
            reports.push_back(one.data);
        }
    }
    ASSERT_GT(reports.size(), 8U);
    EXPECT_THAT(bytes_of("status"), ElementsAreArray(reports));
}

TEST_F(ZelfwtraceRun, TextsAreThoseOfTheTrace) {
    update_printer();
    std::vector<std::string> expected, texts;
    for (const TraceRecord& one : trace()) {
        if (one.kind == record_kind::text) {
            expected.push_back(one.payload);
        }
    }
    for (const json& object : objects("-k text")) {
        texts.push_back(object["text"]);
    }
    EXPECT_EQ(texts, expected);
}

TEST_F(ZelfwtraceRun, SlowAnswersShowInTheSummary) {
    set_bus(
        "[timing]\ntransfer_ms = 0\nquery_ms = 1\nerase_ms = 400\nrecord_ms = 1\n"
        "checksum_ms = 5\nreset_ms = 300\n\n" +
        device_text(SimDevice{}));
    add_firmware("main.dat", {.data_records = 3});
    EXPECT_EQ(update().exit_code, 0);
    const std::vector<json> summary = objects("summary");
    ASSERT_EQ(summary.size(), 1U);
    EXPECT_EQ(summary[0]["sent"], commands("printer").size());
    for (const json& message : summary[0]["messages"]) {
        if (message["message"] == "erase") {
            EXPECT_EQ(message["answers"], 1);
            EXPECT_GE(message["slowest_ms"], 400);
        }
        if (message["message"] == "record") {
            EXPECT_EQ(message["count"], 5);
        }
    }
    EXPECT_THAT(show("summary").output, HasSubstr("  Slowest   erase, "));
}

TEST_F(ZelfwtraceRun, RejectedRecordIsNamed) {
    set_bus({SimDevice{}}, fault_text("printer", "record", "reject", "number = 3"));
    add_firmware("main.dat", {.data_records = 3});
    update();
    const auto lines = words_of(show("-d 3c35").lines());
    EXPECT_THAT(lines, testing::Contains(HasSubstr("  record 3 of 5 (")));
    EXPECT_THAT(lines,
                testing::Contains(MatchesRegex("3c35  status rejected \\(record, .* ms\\)")));
}

TEST_F(ZelfwtraceRun, FileOfTwoRunsShowsBoth) {
    update_printer();
    const std::string kept = path("kept.bin");
    std::filesystem::rename(path("trace.bin"), kept);
    EXPECT_EQ(run_plainly({"-L", "-l", path("run.log"), "-t", kept}).exit_code, 0);
    const ToolRun run = show_file("-k version", kept);
    EXPECT_EQ(run.code, 0) << run.errors;
    EXPECT_EQ(run.lines().size(), 2U);
}

// The traces of one run of each word size lie with the tests, with all that is in them.
TEST_F(ZelfwtraceRun, TraceOfEitherWordSizeIsRead) {
    const std::vector<std::string> expected = {
        "3c35  device information query",
        "3c35  device information query",
        "3c35  EC level query",
        "3c35  extended component list query",
        "3c35  stop",
    };
    for (const char* name : {"list-i386.trace", "list-amd64.trace"}) {
        const std::string file = std::string(TRACE_DIRECTORY) + "/" + name;
        const ToolRun run = show_file("-d 3c35 -k sent", file);
        EXPECT_EQ(run.code, 0) << run.errors;
        EXPECT_EQ(words_of(run.lines()), expected) << name;
        EXPECT_THAT(show_file("-k data", file).output,
                    HasSubstr("data: extended component list, 3 entries"));
    }
}
