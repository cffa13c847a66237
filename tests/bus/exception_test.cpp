// Runs that run out of memory, where an exception ends the command and not the process, and runs
// that fault inside the allocator.
#include "session/zelflash.h"
#include "support/bus_test.h"
#include "support/trace_object.h"
#include "usb/flshusbintf.h"

#include <gmock/gmock.h>

#include <string>

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

#ifndef ZELF_PROGRAM_IS_SANITIZED

namespace {

class OutOfMemory : public BusTest {
  protected:
    OutOfMemory() { set_bus({SimDevice{}}); }

    void fail_allocations_of(std::size_t size) {
        settings.preloads = {FAILING_ALLOCATION};
        settings.environment["FAILING_ALLOCATION_SIZE"] = std::to_string(size);
    }
};

}  // namespace

TEST_F(OutOfMemory, SessionThatCannotBeMadeIsAnUnexpectedError) {
    fail_allocations_of(sizeof(ZELFLASH));
    const RunResult result = run({"-L"});
    EXPECT_EQ(result.exit_code, 4);
    EXPECT_EQ(result.console, "Flash interface load failed...exception occurred\n");
    EXPECT_THAT(result.log, EndsWith("Flash interface load failed...exception occurred\n"));
}

TEST_F(OutOfMemory, JournalsThatCannotBeSetUpAreAnUnexpectedError) {
    fail_allocations_of(trace_object_size());
    const RunResult result = run({"-L"});
    EXPECT_EQ(result.exit_code, 4);
    EXPECT_EQ(result.signal, 0);
    EXPECT_EQ(result.console, "The run could not be set up...exception occurred\n");
}

TEST_F(OutOfMemory, CommandThatThrowsIsAnUnexpectedError) {
    fail_allocations_of(sizeof(USBINTF));
    ends.expect_open_log();  // the session is left as it stands
    const RunResult result = run({"-L"});
    EXPECT_EQ(result.exit_code, 4);
    EXPECT_EQ(result.console, "Flash failed...exception occurred\n");
    EXPECT_THAT(result.log, EndsWith("Flash failed...exception occurred\n"));
    EXPECT_THAT(result.log, Not(HasSubstr("USB Flash ended at")));
}

namespace {

class FaultInTheAllocator : public BusTest {
  protected:
    FaultInTheAllocator() {
        set_bus({{.components = {{}, {.id = 1}}}});
        settings.preloads = {FAULTING_ALLOCATION};
        run_in_real_time();  // the report sets an alarm
    }
    void fault_at_allocation_of(std::size_t size) {
        settings.environment["FAULTING_ALLOCATION_SIZE"] = std::to_string(size);
    }
    /// The report stands whole on the console and in log and trace, and the run has come to its
    /// end.
    void expect_reported(const RunResult& result) const {
        EXPECT_EQ(result.exit_code, 12);
        const auto report = result.console.find("\nSegmentation Fault.. Stopping\nsi_signo:  11\n");
        ASSERT_NE(report, std::string::npos);
        EXPECT_THAT(result.console, EndsWith("\t    CR2: 0x102a\n"));
        EXPECT_THAT(result.log, EndsWith(result.console.substr(report)));
        const auto records = trace();
        ASSERT_FALSE(records.empty());
        EXPECT_EQ(records.back().payload, "\t    CR2: 0x102a\n");
    }
};

}  // namespace

TEST_F(FaultInTheAllocator, IsReportedAndEndsTheRun) {
    fault_at_allocation_of(sizeof(USBINTF));
    for (const char* level : {"0", "1", "2", "3"}) {
        ends.expect_fault_report();
        const RunResult result = run({"-L", "-n", level});
        if (*level == '0') {
            EXPECT_EQ(result.exit_code, 12);
            EXPECT_THAT(result.log, EndsWith("\t    CR2: 0x102a\n"));
        } else {
            expect_reported(result);
        }
    }
}

TEST_F(FaultInTheAllocator, InMidImageIsReportedAndEndsTheRun) {
    // The long record's size is that of nothing else.
    const FirmwareFile file = {
        .component = 1,
        .further_records = {std::string("\xC8\x10\0\x05", 4) + std::string(200, 'x')}};
    add_firmware("boot.dat", file);
    // The device keeps the record, from its length byte on; the message is hexadecimal here.
    constexpr std::size_t head = 4;
    fault_at_allocation_of(file.messages().end()[-2].size() / 2 - head);
    ends.expect_fault_report();
    expect_reported(update());
    EXPECT_THAT(commands("printer"), testing::Contains("04000100"));
    EXPECT_EQ(image("printer", 1), "");
    settings.preloads.clear();
    EXPECT_EQ(update().exit_code, 0);
    EXPECT_EQ(image("printer", 1), file.body());
}

#endif
