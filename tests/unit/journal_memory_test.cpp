// Between the erase of a component and its close no message and no record may need memory: a device
// would be left without its image.
#include "journal/output.h"
#include "journal/zelfwtrace.h"
#include "support/allocation_count.h"
#include "support/child_process.h"
#include "support/temporary_directory.h"
#include "support/trace_file.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <array>
#include <cstdio>
#include <memory>
#include <string>

namespace {

constexpr int no_log_yet = 21;

/// Log and trace that are open and not yet written to; both in a directory of their own.
class JournalMemory : public testing::Test {
  protected:
    void SetUp() override {
        if (!AllocationCount::is_possible()) {
            GTEST_SKIP() << "the sanitizer allocates";
        }
        OutputLevel = 3;
        open_log_file(directory_.path("log").c_str());
        trace = std::make_unique<Trace>(directory_.path("trace").c_str(), 0, 0);
    }
    ~JournalMemory() override {
        trace.reset();
        close_log_file();
    }

    TemporaryDirectory directory_;
};

}  // namespace

TEST_F(JournalMemory, TheCountSeesAnAllocation) {
    const AllocationCount allocations;
    const auto memory = std::make_unique<std::array<char, 100>>();
    EXPECT_NE(memory, nullptr);
    EXPECT_EQ(allocations.count(), 1);
}

TEST_F(JournalMemory, NoMessageNeedsAny) {
    int count = -1;
    {
        const AllocationCount allocations;
        writelog(0, "Updating component %d of %s, 50%% %s\n", 1, "3c35", "100%%");
        writelog_notrace(0, " %%%-3d complete\n", 50);
        writedebug("rc=%d %s %%n %%s\n", 7, "%%");
        count = allocations.count();
    }
    EXPECT_EQ(count, 0);
    EXPECT_EQ(read_file(directory_.path("log")),
              "Updating component 1 of 3c35, 50% 100%%\n %50  complete\n3:rc=7 %% %n %s\n");
    EXPECT_EQ(
        trace_texts(directory_.path("trace")),
        (std::vector<std::string>{"Updating component 1 of 3c35, 50% 100%\n", "rc=7 % %n %s\n"}));
}

TEST_F(JournalMemory, NoRecordNeedsAny) {
    const std::array<unsigned char, 8> prefix = {0x3C, 0x35, 0xA0, 0x01};
    const std::array<unsigned char, 3> data = {'a', 'b', 'c'};
    int count = -1;
    {
        const AllocationCount allocations;
        trace->WriteTraceData(405, prefix, data);
        trace->WriteTraceData(405, data.data(), data.size());
        trace->tprintf("%d%%", 50);
        count = allocations.count();
    }
    EXPECT_EQ(count, 0);
    const auto records = read_trace(directory_.path("trace"));
    ASSERT_EQ(records.size(), 4U);
    EXPECT_EQ(records[1].payload, std::string("\x3C\x35\xA0\x01\0\0\0\0abc", 11));
    EXPECT_EQ(records[2].payload, "abc");
    EXPECT_EQ(records[3].payload, "50%");
}

TEST_F(JournalMemory, TheConsoleNeedsNone) {
    const std::string console = directory_.path("console");
    const ChildEnd end = run_in_child([&console] {
        // A stream without a buffer yet, as a program finds it.
        if (std::freopen(console.c_str(), "w", stdout) == nullptr) {
            _exit(no_log_yet);
        }
        prepare_console();
        OutputLevel = 1;
        const AllocationCount allocations;
        writelog(1, "%s\n", "shown");
        _exit(allocations.count());
    });
    EXPECT_EQ(end.exit_code, 0);
    EXPECT_EQ(read_file(console), "shown\n");
}
