#include "support/run_ends.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <utility>

using testing::HasSubstr;
using testing::Not;

namespace {

constexpr int fault_report_code = 12;
constexpr int highest_exit_code = 13;

std::string description(const std::vector<std::string>& arguments, const RunResult& run) {
    std::string text = "the run";
    for (const std::string& argument : arguments) {
        text += " " + argument;
    }
    return text + "\nconsole:\n" + run.console + "standard error:\n" + run.errors + "log:\n" +
           run.log;
}

/// Whether the log shows no session, or its end.
bool is_closed(const std::string& log) {
    const auto started = log.rfind("USB Flash Started at ");
    return started == std::string::npos ||
           (log.find("USB Flash ended at ", started) != std::string::npos && log.ends_with("==\n"));
}

}  // namespace

void RunEnds::judge(const std::vector<std::string>& arguments, const RunResult& run) {
    const Expectation expected = std::exchange(next_, {});
    SCOPED_TRACE(description(arguments, run));
    EXPECT_FALSE(run.timed_out) << "the run had to be killed";
    EXPECT_EQ(run.signal, expected.signal) << "the signal that ended the run";
    if (run.exit_code != no_right_to_mount) {
        EXPECT_EQ(failed_preparation(run), "");
        EXPECT_LE(run.exit_code, highest_exit_code);
    }
    EXPECT_EQ(run.exit_code == fault_report_code, expected.has_fault_report)
        << "exit code " << run.exit_code << ": the program crashed or should have";
    EXPECT_THAT(run.errors, Not(HasSubstr("Sanitizer")));
    if (expected.signal == 0 && !expected.has_fault_report) {
        EXPECT_EQ(is_closed(run.log), !expected.has_open_log) << "whether the log was closed";
    }
}
