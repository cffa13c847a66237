// A rehearsal with the updater of one word size and the tools of the other.
#include "support/child_process.h"
#include "support/temporary_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>

using testing::HasSubstr;
using testing::StartsWith;

namespace {

const std::string sibling = SIBLING_TREE;
const std::string listed = "PID: 3c35  COMP: 00  TYPE: FW   EC: 01.02.03 (SN='PR40021')\n";

std::string list_with(const std::string& program) {
    return program + " -l 0 -t 0 -L";
}

class Rehearsal : public testing::Test {
  protected:
    void SetUp() override {
        if (!std::filesystem::exists(sibling + "/zelfwupdate") ||
            !std::filesystem::exists(sibling + "/sim/zelfwsim")) {
            GTEST_SKIP() << "one word size only: there is no " << sibling;
        }
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs the super-user";
        }
    }
    /// Runs a command on the demonstration's till; gives its console and sets its exit code.
    std::string rehearse(const std::string& zelfwsim, const std::string& command,
                         const std::string& options = "") {
        const std::string line = zelfwsim + " run " + options + " " DEMO_BUS " -- " + command;
        const ChildEnd end = run_shell(line + " 2>&1");
        code = end.exit_code;
        return end.output;
    }

    int code = -1;
};

}  // namespace

TEST_F(Rehearsal, FindsTheSimulationOfTheOtherWordSize) {
    EXPECT_THAT(rehearse(ZELFWSIM, list_with(sibling + "/zelfwupdate")), StartsWith(listed));
    EXPECT_EQ(code, 0);
    EXPECT_THAT(rehearse(sibling + "/sim/zelfwsim", list_with(ZELFWUPDATE)), StartsWith(listed));
    EXPECT_EQ(code, 0);
}

TEST_F(Rehearsal, ScriptMayStartUpdatersOfBothWordSizes) {
    const TemporaryDirectory directory;
    const std::string script = directory.path("both");
    write_file(script, "#!/bin/sh\n" + list_with(ZELFWUPDATE) + "\n" +
                           list_with(sibling + "/zelfwupdate") + "\n");
    std::filesystem::permissions(script, std::filesystem::perms::owner_all);
    for (const std::string& zelfwsim : {std::string(ZELFWSIM), sibling + "/sim/zelfwsim"}) {
        const std::string console = rehearse(zelfwsim, script);
        EXPECT_EQ(code, 0);
        EXPECT_THAT(console, StartsWith(listed));
        EXPECT_THAT(console.substr(listed.size()), HasSubstr(listed));
    }
}

TEST_F(Rehearsal, NamedSimulationOfTheWrongWordSizeIsRefused) {
    EXPECT_THAT(rehearse(ZELFWSIM, list_with(ZELFWUPDATE), "--library " + sibling + "/sim"),
                HasSubstr("/sim has no "));
    EXPECT_EQ(code, 122);
}
