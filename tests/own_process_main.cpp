/// \file
/// The main function of every test program: each of the selected tests runs in a process of its
/// own. The program's option variables and tables are process-wide, and so nothing of one test
/// reaches the next. It is a copy of this process, which is much cheaper than another start of the
/// program: the sanitizers prepare themselves once.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

/// Says what went wrong, or why a test is skipped, and nothing else.
class Troubles : public testing::EmptyTestEventListener {
    void OnTestPartResult(const testing::TestPartResult& result) override {
        if (!result.passed()) {
            std::printf("%s:%d: %s\n%s\n",
                        result.file_name() != nullptr ? result.file_name() : "unknown file",
                        result.line_number(), result.skipped() ? "Skipped" : "Failure",
                        result.message());
            std::fflush(stdout);
        }
    }
};

/// Has GoogleTest choose by filter and shard: it chooses before it lists.
void choose_without_a_word() {
    std::fflush(stdout);
    const int console = dup(STDOUT_FILENO);
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(nowhere, STDOUT_FILENO);
    close(nowhere);
    GTEST_FLAG_SET(list_tests, true);
    const int listed = RUN_ALL_TESTS();
    GTEST_FLAG_SET(list_tests, false);
    std::fflush(stdout);
    dup2(console, STDOUT_FILENO);
    close(console);
    if (listed != 0) {
        std::exit(listed);
    }
}

std::vector<std::string> chosen_tests() {
    choose_without_a_word();
    std::vector<std::string> names;
    const testing::UnitTest& all = *testing::UnitTest::GetInstance();
    for (int i = 0; i < all.total_test_suite_count(); ++i) {
        const testing::TestSuite& suite = *all.GetTestSuite(i);
        for (int j = 0; j < suite.total_test_count(); ++j) {
            if (suite.GetTestInfo(j)->should_run()) {
                names.push_back(std::string(suite.name()) + "." + suite.GetTestInfo(j)->name());
            }
        }
    }
    return names;
}

bool passes_alone(const std::string& name) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        GTEST_FLAG_SET(filter, name);
        testing::TestEventListeners& listeners = testing::UnitTest::GetInstance()->listeners();
        delete listeners.Release(listeners.default_result_printer());
        listeners.Append(new Troubles);
        unsetenv("GTEST_TOTAL_SHARDS");
        unsetenv("GTEST_SHARD_INDEX");
        std::exit(RUN_ALL_TESTS());
    }
    int status = 0;
    return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

/// Whether GoogleTest is to do something else with the tests than to run them once.
bool is_for_googletest() {
    return GTEST_FLAG_GET(list_tests) || GTEST_FLAG_GET(repeat) != 1 ||
           GTEST_FLAG_GET(break_on_failure) || !GTEST_FLAG_GET(output).empty() ||
           !GTEST_FLAG_GET(internal_run_death_test).empty();
}

int run_each_alone(const std::vector<std::string>& names) {
    std::vector<std::string> failed;
    for (const std::string& name : names) {
        std::printf("[ RUN      ] %s\n", name.c_str());
        if (!passes_alone(name)) {
            std::printf("[  FAILED  ] %s\n", name.c_str());
            failed.push_back(name);
        }
    }
    std::printf("%zu tests, %zu failed\n", names.size(), failed.size());
    for (const std::string& name : failed) {
        std::printf("  %s\n", name.c_str());
    }
    return failed.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    if (is_for_googletest()) {
        return RUN_ALL_TESTS();
    }
    const std::vector<std::string> names = chosen_tests();
    return names.size() > 1 ? run_each_alone(names) : RUN_ALL_TESTS();
}
