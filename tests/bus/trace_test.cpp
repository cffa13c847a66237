// The trace of whole runs: its records, in order, against what went over the wire.
#include "support/bus_test.h"
#include "support/hexadecimal.h"

#include <gmock/gmock.h>

#include <ctime>
#include <map>

using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::Not;

namespace {

class TraceOfARun : public BusTest {
  protected:
    /// The payloads of one kind in hexadecimal.
    std::vector<std::string> payloads(std::uint32_t kind) const {
        std::vector<std::string> found;
        for (const TraceRecord& record : trace()) {
            if (record.kind == kind) {
                found.push_back(to_hex(record.payload));
            }
        }
        return found;
    }
    std::string text() const {
        std::string all;
        for (const TraceRecord& record : trace()) {
            all += record.kind == record_kind::text ? record.payload : "";
        }
        return all;
    }
    /// Every record from one text to another: texts as they are, commands in hexadecimal, "status"
    /// for a good status report. Failures around the reset are left out.
    std::vector<std::string> marks_between(const std::string& first,
                                           const std::string& last) const {
        std::vector<std::string> marks;
        for (const TraceRecord& record : trace()) {
            if (marks.empty() ? record.payload != first : marks.back() == last) {
                continue;
            }
            if (record.kind == record_kind::written) {
                marks.push_back(to_hex(record.payload));
            } else if (record.kind == record_kind::status) {
                EXPECT_EQ(to_hex(record.payload).substr(0, 16), "3c35a00200000000");
                EXPECT_EQ(record.payload.size(), 16U);
                marks.emplace_back("status");
            } else if (record.payload.find("expected") == std::string::npos &&
                       record.payload.find("Read Request") == std::string::npos &&
                       record.payload.find("rc=-") == std::string::npos) {
                marks.push_back(record.payload);
            }
        }
        return marks;
    }
    /// Runs an update of the printer's component 1 with five records in all.
    FirmwareFile update_boot() {
        FirmwareFile file = {.component = 1, .data_records = 3};
        SimDevice device;
        device.components = {{}, {.id = 1}};
        set_bus({device});
        add_firmware("boot.dat", file);
        EXPECT_EQ(update().exit_code, 0);
        return file;
    }
};

}  // namespace

TEST_F(TraceOfARun, BeginsWithTheVersionRecord) {
    update_boot();
    const std::vector<TraceRecord> records = trace();
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records[0].kind, record_kind::version);
    EXPECT_EQ(records[0].length, 16U);
    EXPECT_EQ(records[0].component, 0);
    for (std::size_t i = 1; i < records.size(); ++i) {
        EXPECT_NE(records[i].kind, record_kind::version);
        EXPECT_EQ(records[i].component, 'e');
        EXPECT_EQ(records[i].reserved, 0);
        EXPECT_EQ(records[i].length, records[i].payload.size());
        EXPECT_LT(records[i].milliseconds, 1000);
    }
}

TEST_F(TraceOfARun, EveryCommandIsARecordWithProductAndUsage) {
    update_boot();
    EXPECT_THAT(payloads(record_kind::written),
                ElementsAreArray(with_prefix("3c35a00100000000", commands("printer"))));
}

TEST_F(TraceOfARun, EveryStatusReportIsARecordWithProductAndUsage) {
    update_boot();
    std::vector<std::string> reports;
    for (const Transfer& one : record().of_kind("printer", "interrupt")) {
        if (one.result == 0) {
            reports.push_back(one.data);
        }
    }
    ASSERT_GT(reports.size(), 8U);
    EXPECT_THAT(payloads(record_kind::status),
                ElementsAreArray(with_prefix("3c35a00200000000", reports)));
}

TEST_F(TraceOfARun, DataAnswerIsARecordOfTheBytesAskedFor) {
    SimDevice device;
    set_bus({device});
    run({"-L"});
    const auto answers = payloads(record_kind::feature);
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers[0].size(), 2U * (8 + 255));
    EXPECT_EQ(answers[0].substr(0, 16), "3c35a00300000000");
    // One entry: component 0, level 01.02, type firmware, build level 0.
    EXPECT_EQ(answers[0].substr(16, 22), "010005ff00020002010200");
}

TEST_F(TraceOfARun, FallbackUsageIsNamed) {
    SimDevice device;
    device.interface_keys = "feature_usage = 0x1603";
    set_bus({device});
    run({"-L"});
    const auto answers = payloads(record_kind::feature);
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers[0].substr(0, 16), "3c35160300000000");
}

TEST_F(TraceOfARun, TransfersStandInTheOrderInWhichTheyHappened) {
    update_boot();
    std::vector<std::uint32_t> kinds;
    for (const TraceRecord& record : trace()) {
        if (record.kind != record_kind::version && record.kind != record_kind::text) {
            kinds.push_back(record.kind);
        }
    }
    const auto w = record_kind::written, s = record_kind::status, f = record_kind::feature;
    EXPECT_THAT(kinds, ElementsAreArray({
                           w, s,              // the probe, answered to the reader that starts later
                           w, s,              // device information
                           w, s,              // EC level
                           w, s, f,           // extended list and its answer
                           w, s,              // stop
                           w, s,              // erase
                           w, s, w, s,        // information records
                           w, s, w, s, w, s,  // data records
                           w, s,              // checksum
                           w, s,              // stop
                       }));
}

TEST_F(TraceOfARun, TextsAndTransfersOfAWholeUpdateStandInOneSequence) {
    const FirmwareFile file = {.data_records = 3};
    set_bus({SimDevice{}});
    add_firmware("main.dat", file);
    EXPECT_EQ(update().exit_code, 0);

    std::vector<std::string> expected = {
        "    Starting firmware update of Product ID 3c35 COMP: 0\n",
        "    EC level when complete should be 01.05.00\n",
        "3c35a0010000000004000100",
        "status",
        "Erase completed, now sending 5 firmware update records from file\n",
    };
    const std::vector<std::string> messages = file.messages();
    for (const std::string& message : messages) {
        if (message == messages.back()) {
            expected.emplace_back("Main part of firmware update done, now sending checksum\n");
        }
        expected.push_back("3c35a00100000000" + message);
        expected.emplace_back("status");
    }
    for (const char* const last :
         {"Checksums written\n", "Reset needed after update completes\n",
          "Reset to be done for PID 3c35\n", "3c35a0010000000004000040", "3c35a0010000000002000080",
          "Firmware update of Product ID 3c35 COMP: 0 finished, rc=0\n"}) {
        expected.emplace_back(last);
    }
    const std::vector<std::string> sequence = marks_between(expected.front(), expected.back());
    EXPECT_THAT(sequence, ElementsAreArray(expected));
}

TEST_F(TraceOfARun, TextsAreThoseOfTheLog) {
    update_boot();
    const std::string log = read_file(path("run.log"));
    EXPECT_THAT(text(), HasSubstr("Version 1.1.3 (i386)\n"));
    EXPECT_THAT(text(), HasSubstr("    Starting firmware update of Product ID 3c35 COMP: 1\n"));
    EXPECT_THAT(text(), HasSubstr("USB Flash ended at "));
    EXPECT_THAT(log, HasSubstr(" %100 complete\n"));
    // Progress is not traced.
    EXPECT_THAT(text(), Not(HasSubstr(" complete\n")));
}

TEST_F(TraceOfARun, StampsNameTheProcessAndNeverDecreasePerThread) {
    run_in_real_time();
    const auto before = static_cast<std::uint32_t>(time(nullptr));
    update_boot();
    const auto after = static_cast<std::uint32_t>(time(nullptr));
    const std::vector<TraceRecord> records = trace();
    std::map<std::uint32_t, double> last_clock;
    for (const TraceRecord& record : records) {
        EXPECT_EQ(record.process, records[0].process);
        EXPECT_GE(record.seconds, before);
        EXPECT_LE(record.seconds, after);
        EXPECT_GE(record.clock, last_clock[record.thread]);
        last_clock[record.thread] = record.clock;
    }
    // The main thread and a reader.
    EXPECT_GE(last_clock.size(), 2U);
}

TEST_F(TraceOfARun, IsAppendedToByTheNextRun) {
    set_bus({SimDevice{}});
    run({"-L"});
    const std::size_t first = trace().size();
    std::filesystem::rename(path("trace.bin"), path("kept.bin"));
    EXPECT_EQ(run_plainly({"-L", "-l", path("run.log"), "-t", path("kept.bin")}).exit_code, 0);
    const auto both = read_trace(path("kept.bin"));
    ASSERT_GT(both.size(), first);
    EXPECT_EQ(both[first].kind, record_kind::version);
}
