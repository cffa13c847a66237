// zelfwtrace on trace files that are cut, damaged, or no trace files at all.
#include "trace_bytes.h"
#include "trace_tool.h"
#include "zelfwtrace/conversation.h"
#include "zelfwtrace/trace_reader.h"

#include <gmock/gmock.h>

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <set>

using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

using ZelfwtraceDamage = TraceToolTest;

constexpr std::size_t header_size = 32;

TraceBytes whole_trace() {
    TraceBytes trace;
    trace.version().text("Started\n").sent("04 00 01 00").status("01 00 00 00 00 00 00 00");
    trace.record(4).data("01 02 03").sent("05 00 02 00 00 1e 86");
    return trace;
}

/// Where each record of a trace begins; and, last, where the trace ends.
std::set<std::size_t> boundaries(const std::string& bytes) {
    std::set<std::size_t> all = {0};
    for (std::size_t at = 0; at < bytes.size();) {
        const auto length = static_cast<unsigned char>(bytes[at]);
        const bool is_version = static_cast<unsigned char>(bytes[at + 4]) == (501 & 0xFF);
        at += header_size + (is_version ? 0 : length);
        all.insert(at);
    }
    return all;
}

struct FileCloser {
    void operator()(FILE* file) const { static_cast<void>(fclose(file)); }
};

struct Reading {
    std::size_t records = 0;
    std::size_t longest = 0;
    std::optional<TraceDamage> damage;
};

/// Reads the bytes of a file to their end or their first damage.
Reading read_bytes(std::string bytes) {
    Reading reading;
    if (bytes.empty()) {
        return reading;
    }
    const std::unique_ptr<FILE, FileCloser> stream(fmemopen(bytes.data(), bytes.size(), "rb"));
    TraceReader reader(stream.get());
    Conversations conversations;
    for (TraceEntry entry; reader.next(entry);) {
        ++reading.records;
        reading.longest = std::max(reading.longest, entry.payload.size());
        EXPECT_FALSE(conversations.follow(entry).title().empty());
    }
    reading.damage = reader.damage();
    return reading;
}

/// A file of one good record and one with this header.
std::string behind_a_good_one(const RecordHeader& header, std::uint32_t length) {
    return TraceBytes().version().raw(header.bytes(length)).bytes() + std::string(64, 'x');
}

RecordHeader header_of_kind(std::uint32_t kind) {
    RecordHeader header;
    header.kind = kind;
    return header;
}

}  // namespace

TEST_F(ZelfwtraceDamage, FileCutAtAnyByteIsReadUpToItsLastWholeRecord) {
    const std::string bytes = whole_trace().bytes();
    const std::set<std::size_t> starts = boundaries(bytes);
    ASSERT_EQ(starts.size(), 8U);
    ASSERT_TRUE(starts.contains(bytes.size()));
    for (std::size_t size = 0; size <= bytes.size(); ++size) {
        const Reading reading = read_bytes(bytes.substr(0, size));
        const auto start = std::prev(starts.upper_bound(size));
        EXPECT_EQ(reading.records, static_cast<std::size_t>(std::distance(starts.begin(), start)));
        EXPECT_EQ(reading.damage.has_value(), size != *start) << size;
        if (reading.damage) {
            EXPECT_EQ(reading.damage->offset, *start);
        }
    }
}

TEST_F(ZelfwtraceDamage, CutHeaderIsToldWithOffsetAndBytes) {
    const std::string bytes = whole_trace().bytes();
    set_trace(bytes.substr(0, 32 + 10));
    const ToolRun run = show();
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(words_of(run.lines()), testing::ElementsAre("-     a run begins"));
    EXPECT_EQ(run.errors, "zelfwtrace: " + path("trace.bin") +
                              ": offset 32: the file ends inside a record's header, after 10 of 32 "
                              "bytes\n");
}

TEST_F(ZelfwtraceDamage, CutPayloadIsToldWithOffsetAndBytes) {
    set_trace(whole_trace().bytes().substr(0, 32 + 32 + 3));
    const ToolRun run = show();
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.lines(), SizeIs(1));
    EXPECT_THAT(run.errors,
                EndsWith(": offset 32: the file ends inside a record, after 3 of its 8 bytes\n"));
}

TEST_F(ZelfwtraceDamage, EveryOutputShowsWhatIsThereAndFails) {
    const std::string bytes = whole_trace().bytes();
    set_trace(bytes.substr(0, bytes.size() - 1));
    for (const char* options : {"", "--json", "summary", "summary --json"}) {
        const ToolRun run = show(options);
        EXPECT_EQ(run.code, 1) << options;
        EXPECT_THAT(run.output, HasSubstr("erase")) << options;
        EXPECT_THAT(run.errors, HasSubstr("offset 259: the file ends inside")) << options;
    }
}

TEST_F(ZelfwtraceDamage, ImpossibleFieldsAreToldByName) {
    RecordHeader reserved = header_of_kind(42), component = header_of_kind(42),
                 milliseconds = header_of_kind(42);
    reserved.reserved = 1;
    component.component = 'f';
    milliseconds.milliseconds = 1000;
    const std::vector<std::pair<std::string, std::string>> cases = {
        {behind_a_good_one(header_of_kind(43), 4), "no kind of record has the number 43"},
        {behind_a_good_one(header_of_kind(501), 15), "a version record cannot claim 15 bytes"},
        {behind_a_good_one(header_of_kind(42), 41960), "a text of 41960 bytes is too long"},
        {behind_a_good_one(header_of_kind(42), 0xFFFFFFFF),
         "a text of 4294967295 bytes is too long"},
        {behind_a_good_one(header_of_kind(405), 7), "a transfer of 7 bytes is too short"},
        {behind_a_good_one(header_of_kind(406), 0x10008), "a transfer of 65544 bytes is too long"},
        {behind_a_good_one(reserved, 4), "the reserved byte is not 0"},
        {behind_a_good_one(component, 4), "the component byte is not that of a trace"},
        {behind_a_good_one(milliseconds, 4), "a second has no millisecond 1000"},
    };
    for (const auto& [bytes, reason] : cases) {
        const Reading reading = read_bytes(bytes);
        EXPECT_EQ(reading.records, 1U) << reason;
        ASSERT_TRUE(reading.damage) << reason;
        EXPECT_EQ(reading.damage->reason, reason);
        EXPECT_EQ(reading.damage->offset, header_size);
    }
}

TEST_F(ZelfwtraceDamage, ClockThatIsNoNumberOfMillisecondsIsDamage) {
    for (const double clock :
         {-1.0, 0.5, 4294967296.0, std::nan(""), std::numeric_limits<double>::infinity()}) {
        RecordHeader header = header_of_kind(42);
        header.clock = clock;
        const Reading reading = read_bytes(behind_a_good_one(header, 4));
        ASSERT_TRUE(reading.damage) << clock;
        EXPECT_EQ(reading.damage->reason, "the clock is no number of milliseconds");
    }
}

TEST_F(ZelfwtraceDamage, LongestTextAndLongestTransferAreRead) {
    TraceBytes trace;
    trace.text(std::string(41959, 'x'));
    RecordHeader header = header_of_kind(405);
    trace.raw(header.bytes(0x10007)).raw(std::string(0x10007, '\0'));
    const Reading reading = read_bytes(trace.bytes());
    EXPECT_FALSE(reading.damage);
    EXPECT_EQ(reading.records, 2U);
    EXPECT_EQ(reading.longest, 0x10007U);
}

TEST_F(ZelfwtraceDamage, VersionRecordMayCarryATimeZone) {
    RecordHeader header = header_of_kind(501);
    header.component = 0xFF;
    EXPECT_FALSE(read_bytes(header.bytes(16)).damage);
}

TEST_F(ZelfwtraceDamage, AnyByteMayBeWrong) {
    const std::string bytes = whole_trace().bytes();
    int damaged = 0;
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        for (const int mask : {0x01, 0x80, 0xFF}) {
            std::string changed = bytes;
            changed[at] = static_cast<char>(changed[at] ^ mask);
            const Reading reading = read_bytes(changed);
            EXPECT_LE(reading.records, 7U);
            damaged += reading.damage ? 1 : 0;
        }
    }
    // What a header says about its record; its stamps and the payloads may be anything.
    EXPECT_GT(damaged, 7 * 3 * 8);
}

TEST_F(ZelfwtraceDamage, RandomBytesAreNoTrace) {
    std::mt19937 random(1);
    std::uniform_int_distribution<int> byte(0, 255);
    for (int i = 0; i < 200; ++i) {
        std::string bytes(100, '\0');
        for (char& c : bytes) {
            c = static_cast<char>(byte(random));
        }
        const Reading reading = read_bytes(bytes);
        EXPECT_EQ(reading.records, 0U);
        EXPECT_TRUE(reading.damage);
    }
}

TEST_F(ZelfwtraceDamage, TextFileIsNoTrace) {
    set_trace("This is the log of another program, and longer than one header.\n");
    const ToolRun run = show();
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.output, IsEmpty());
    EXPECT_EQ(run.errors, "zelfwtrace: " + path("trace.bin") + ": this is no trace\n");
}

TEST_F(ZelfwtraceDamage, TextLogOfARunIsCalledThat) {
    set_trace("Quenta Firmware Update Utility\n\nVersion 1.1.3 (i386)\n");
    const ToolRun run = show();
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.errors, EndsWith(": this is no trace; it looks like the text log\n"));
}

TEST_F(ZelfwtraceDamage, EmptyFileIsCalledThat) {
    set_trace("");
    const ToolRun run = show();
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.output, IsEmpty());
    EXPECT_EQ(run.errors, "zelfwtrace: " + path("trace.bin") + ": the file is empty\n");
}

TEST_F(ZelfwtraceDamage, DamagedHeaderIsSteppedOver) {
    TraceBytes trace;
    trace.version().text("one");
    const std::size_t damaged = trace.size();
    trace.text("two");
    const std::size_t next = trace.size();
    trace.text("three");
    std::string bytes = trace.bytes();
    bytes[damaged + 4] = '\x07';
    set_trace(bytes);
    const ToolRun run = show();
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(words_of(run.lines()),
                testing::ElementsAre("-     a run begins", "-     text: one", "-     text: three"));
    EXPECT_THAT(run.errors,
                EndsWith(": offset 67: no kind of record has the number 7; " +
                         std::to_string(next - damaged) + " bytes lost, going on at offset " +
                         std::to_string(next) + "\n"));
}

TEST_F(ZelfwtraceDamage, RecordWhoseLengthSwallowsOthersLosesThemNot) {
    TraceBytes trace;
    trace.version().text("one");
    std::string bytes = trace.bytes();
    bytes[32] = 60;  // of "one"
    set_trace(bytes + TraceBytes().text("two").text("three").text("four").bytes());
    const ToolRun run = show();
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(words_of(run.lines()),
                testing::ElementsAre("-     a run begins", "-     text: two", "-     text: three",
                                     "-     text: four"));
    EXPECT_EQ(std::count(run.errors.begin(), run.errors.end(), '\n'), 1);
    EXPECT_THAT(run.errors, EndsWith(": offset 32: another record begins inside the 60 bytes of "
                                     "this one; 35 bytes lost, going on at offset 67\n"));
}

TEST_F(ZelfwtraceDamage, HalfRecordThatAnotherRunAppendedToIsSteppedOver) {
    const std::string half = TraceBytes().version().text("half a text").bytes().substr(0, 70);
    const std::string more = TraceBytes().process(77).version().text("two").bytes();
    set_trace(half + more);
    const ToolRun run = show();
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(
        words_of(run.lines()),
        testing::ElementsAre("-     a run begins", "-     text: half a\\x10\\x00\\x00\\x00\\xf5",
                             "-     a run begins", "-     text: two"));
    EXPECT_THAT(run.errors, HasSubstr("the number 0; going on at offset 70\n"));
}

TEST_F(ZelfwtraceDamage, HeaderOfAProcessThatNoSystemHasIsNotGoneOnAt) {
    TraceBytes trace;
    trace.version().raw("damage").process(0).text("zero").process(4'194'305).text("beyond");
    trace.process(4'194'304).text("highest");
    set_trace(trace.bytes());
    EXPECT_THAT(words(), testing::ElementsAre("-     a run begins", "-     text: highest"));
}

TEST_F(ZelfwtraceDamage, NumbersOfAnImageEndWhereRecordsWereLost) {
    TraceBytes trace;
    trace.version()
        .sent("04 00 01 00")
        .record(1)
        .raw("damage")
        .record(2)
        .sent("05 00 02 00 00 1e 86");
    trace.sent("04 00 01 00").record(3).sent("05 00 02 00 00 1e 86");
    set_trace(trace.bytes());
    EXPECT_THAT(words("-k sent"),
                testing::ElementsAre(
                    "3c35  erase", "3c35  record 1 (component 0, data 000000, 1 byte)",
                    "3c35  record (component 0, data 000000, 2 bytes)", "3c35  checksum (1e.86)",
                    "3c35  erase", "3c35  record 1 of 1 (component 0, data 000000, 3 bytes)",
                    "3c35  checksum (1e.86)"));
}

TEST_F(ZelfwtraceDamage, ManyDamagedPlacesAreNamedInPartAndCounted) {
    TraceBytes trace;
    trace.version();
    for (int i = 0; i < 23; ++i) {
        trace.raw("x").text("text");
    }
    set_trace(trace.bytes());
    const ToolRun run = show();
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.lines(), SizeIs(24));
    EXPECT_EQ(std::count(run.errors.begin(), run.errors.end(), '\n'), 21);
    EXPECT_THAT(run.errors, EndsWith(": 3 more damaged places\n"));
}

TEST_F(ZelfwtraceDamage, EveryWholeRecordBehindAnyWrongByteIsShown) {
    const std::string bytes = whole_trace().bytes();
    const std::set<std::size_t> starts = boundaries(bytes);
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        std::string changed = bytes;
        changed[at] = static_cast<char>(changed[at] ^ 0x40);
        const std::unique_ptr<FILE, FileCloser> stream(
            fmemopen(changed.data(), changed.size(), "rb"));
        TraceReader reader(stream.get());
        std::set<std::size_t> read;
        do {
            for (TraceEntry entry; reader.next(entry);) {
                read.insert(static_cast<std::size_t>(entry.offset));
            }
        } while (reader.step_over_damage());
        const auto damaged = std::prev(starts.upper_bound(at));
        for (auto one = std::next(damaged); *one != bytes.size(); ++one) {
            EXPECT_TRUE(read.contains(*one)) << "byte " << at << ", record at " << *one;
        }
        EXPECT_EQ(reader.offset(), bytes.size());
    }
}

TEST_F(ZelfwtraceDamage, FileThatCannotBeReadIsAFailure) {
    const ToolRun missing = run(quoted(path("missing")));
    EXPECT_EQ(missing.code, 1);
    EXPECT_EQ(missing.errors, "zelfwtrace: " + path("missing") + ": No such file or directory\n");
    const ToolRun directory = run(quoted(path("")));
    EXPECT_EQ(directory.code, 1);
    EXPECT_THAT(directory.errors, EndsWith(": offset 0: Is a directory\n"));
}

// As long as a record allows, and almost what a command looks for.
TEST_F(ZelfwtraceDamage, LongestTextsAreReadByEveryCommand) {
    constexpr std::size_t longest = 41959;
    const auto filled = [](std::string text, const std::string& filling, const std::string& end) {
        while (text.size() + filling.size() + end.size() <= longest) {
            text += filling;
        }
        return text + end;
    };
    const std::string level = "PID: 3c35  COMP: 1  TYPE: ";
    TraceBytes trace;
    trace.version().text("USB Flash Started at noon\n");
    for (const std::string& text :
         {filled("", "A", "\n"), filled("x SN='", "A", "'\n"), filled(level, "A", "\n"),
          filled(filled(level, "A", "").substr(0, longest / 2), " ", "\n"),
          filled(level + "FW   EC: 01.02    (SN='", "A", "')\n"),
          filled("  ", "A ", "PID: 3c35 COMP: 1\n"), filled("  ", "A ", "\n"),
          filled("Command line: zelfwupdate -s ", "A", "\n"),
          filled("Command line: zelfwupdate", " -d 3c35", "\n"),
          filled("Sleeping for ", "1", " milliseconds before using device again\n")}) {
        ASSERT_LE(text.size(), longest);
        trace.text(text);
    }
    set_trace(trace.bytes());
    const std::string file = quoted(path("trace.bin"));
    for (const char* command :
         {"show", "summary", "explain", "redact -o out", "report -o page", "pcap -o capture"}) {
        const ToolRun done = run_tool("cd " + quoted(path("")) + " && " + quoted(ZELFWTRACE) + " " +
                                      command + " " + file);
        // What an explanation says of a run without an end is 3.
        EXPECT_EQ(done.code, std::string(command) == "explain" ? 3 : 0) << command;
        EXPECT_EQ(done.errors, "") << command;
    }
}

TEST_F(ZelfwtraceDamage, LargeFileTakesLittleMemory) {
    TraceBytes part;
    for (int i = 0; i < 20; ++i) {
        part.process(static_cast<std::uint32_t>(i)).text(std::string(41959, 'x'));
    }
    std::string bytes;
    for (int i = 0; i < 80; ++i) {
        bytes += part.bytes();
    }
    set_trace(bytes);
    ASSERT_GT(bytes.size(), 64U << 20U);
    // In kilobytes, of all that the process may map; a sanitizer maps more than any machine has.
    const std::string limit = std::string(ZELF_SANITIZED).empty() ? "ulimit -v 40000; " : "";
    const ToolRun run =
        run_tool(limit + quoted(ZELFWTRACE) + " summary " + quoted(path("trace.bin")));
    EXPECT_EQ(run.code, 0) << run.errors;
    EXPECT_EQ(run.output, "0 runs, 1600 texts, 0 devices\n");
}
