// A zelfwtrace that was built where libpcap is missing.
#include "trace_bytes.h"
#include "trace_tool.h"

#include <filesystem>

TEST(ZelfwtraceWithoutLibpcap, RefusesToWriteACapture) {
    const TemporaryDirectory directory;
    const std::string trace = directory.path("trace.bin").string();
    const std::string capture = directory.path("exchange.pcap").string();
    write_file(trace, TraceBytes().version().bytes());
    const ToolRun run = run_shell(
        quoted(ZELFWTRACE) + " --pcap " + quoted(capture) + " " + quoted(trace), directory);
    EXPECT_EQ(run.code, 1);
    EXPECT_EQ(run.errors, "zelfwtrace: " + capture +
                              ": this zelfwtrace was built without libpcap and writes no "
                              "captures\n");
    EXPECT_FALSE(std::filesystem::exists(capture));
}
