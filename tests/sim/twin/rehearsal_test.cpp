// The plan of an update, as the updater itself makes it on a twin.
#include "support/workspace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

namespace {

using testing::HasSubstr;
using testing::Not;

class Rehearsal : public testing::Test {
  protected:
    Rehearsal() {
        std::filesystem::create_directory(files_);
        for (const char* name : {"printer-main.dat", "scanner-decoder.dat"}) {
            std::filesystem::copy(std::string(DEMO_FIRMWARE "/") + name, files_ + "/" + name);
        }
    }

    /// The trace of a list, or of another command, on the demonstration's bus.
    std::string trace_of(const std::string& command) const {
        const Outcome made = run("cd " + workspace_.path("") +
                                 " && " ZELFWSIM_TOOL " run --virtual " ZELFWSIM_BUSES
                                 "/demo.toml -- " ZELFWUPDATE " " +
                                 command + " -l log -t trace");
        EXPECT_EQ(made.code, 0) << made.output;
        return workspace_.path("trace");
    }

    Outcome rehearse(const std::string& origin, const std::string& options = "") const {
        return run(ZELFWSIM_TOOL " rehearse --updater " ZELFWUPDATE " " + origin + " -p " + files_ +
                   " " + options);
    }

    const Workspace workspace_;
    const std::string files_ = workspace_.path("files");
};

TEST_F(Rehearsal, TellsWhichDeviceGetsWhichFile) {
    const Outcome plan = rehearse(trace_of("-L"));
    EXPECT_EQ(plan.code, 0);
    EXPECT_THAT(plan.output, HasSubstr("Updates: 2\n"));
    EXPECT_THAT(plan.output, HasSubstr("3c35 component 0 (SN='PR40021')  01.02.03 -> 01.05.01  "
                                       "printer-main.dat, 15882 bytes"));
    EXPECT_THAT(plan.output, HasSubstr("Due after it: nothing\n"));
}

TEST_F(Rehearsal, IsWhatTheUpdateThenDoes) {
    const auto plan = nlohmann::json::parse(rehearse(trace_of("-L"), "--json").output);
    const Outcome update = run("cd " + workspace_.path("") +
                               " && " ZELFWSIM_TOOL " run --virtual " ZELFWSIM_BUSES
                               "/demo.toml -- " ZELFWUPDATE " -U -p " +
                               files_ + " -l log -t trace2");
    EXPECT_EQ(plan["exit_code"], update.code);
    ASSERT_EQ(plan["updates"].size(), 2U);
    EXPECT_THAT(update.output, HasSubstr("Updated 2 devices\n"));
    for (const auto& one : plan["updates"]) {
        EXPECT_THAT(update.output, HasSubstr(one["file"].get<std::string>()));
        EXPECT_EQ(one["rc"], 0);
        EXPECT_GT(one["ms"], 300);
    }
}

TEST_F(Rehearsal, TellsWhyAFileIsNotUsed) {
    std::filesystem::copy(DEMO_FIRMWARE "/display.dat", files_ + "/display.dat");
    // The files' device is left out, and the file is no longer above the level it has brought.
    const Outcome chosen = rehearse(trace_of("-L"), "-d 3C12");
    EXPECT_EQ(chosen.code, 0);
    EXPECT_THAT(chosen.output, HasSubstr("Not used: printer-main.dat: no "));
    workspace_.write("bus.toml", R"(
[[device]]
name = "printer"
vendor = 0x7A01
product = 0x3C35
[[device.interface]]
kind = "flash"
[[device.interface.component]]
id = 0
level = "01.06"
)");
    const Outcome high = rehearse(workspace_.bus());
    EXPECT_THAT(high.output,
                HasSubstr("Not used: printer-main.dat: its level 01.05.01 is not above "
                          "the device's 01.06"));
    EXPECT_THAT(high.output, HasSubstr("Not used: display.dat: no such device"));
    EXPECT_EQ(high.code, 0);
}

TEST_F(Rehearsal, TellsThatAnEarlierFileWasFirst) {
    // The updater takes the first file of its list for a component, whatever the level of another.
    std::filesystem::copy(files_ + "/printer-main.dat", files_ + "/second.dat");
    const Outcome plan = rehearse(trace_of("-L"));
    const bool is_second = plan.output.find("second.dat, 15882 bytes") != std::string::npos;
    const std::string used = is_second ? "second.dat" : "printer-main.dat";
    const std::string other = is_second ? "printer-main.dat" : "second.dat";
    EXPECT_THAT(plan.output, HasSubstr(used + ", 15882 bytes"));
    EXPECT_THAT(plan.output,
                HasSubstr("Not used: " + other + ": an earlier file was first: " + used + "\n"));
    EXPECT_EQ(plan.code, 0);
    const auto json = nlohmann::json::parse(rehearse(trace_of("-L"), "--json").output);
    ASSERT_EQ(json["not_used"].size(), 1U);
    EXPECT_EQ(json["not_used"][0]["file"], other);
    EXPECT_EQ(json["not_used"][0]["reason"], "an earlier file was first: " + used);
}

TEST_F(Rehearsal, TellsThatTheVersionDigitIsAnother) {
    std::string bytes = workspace_.read("files/printer-main.dat");
    bytes.replace(0, 8, "3c350205");
    workspace_.write("files/printer-main.dat", bytes);
    const Outcome plan = rehearse(trace_of("-L"));
    EXPECT_THAT(plan.output, HasSubstr("Not used: printer-main.dat: its version digit 2 is not the "
                                       "device's 1\n"));
    EXPECT_EQ(plan.code, 0);
}

TEST_F(Rehearsal, TakesNoMarkerAway) {
    workspace_.write("files/printer-main.dat.force", "");
    const Outcome plan = rehearse(trace_of("-L"));
    // A file that is due anyway leaves its marker, which forces it in the next run.
    EXPECT_EQ(plan.code, 3);
    EXPECT_THAT(plan.output, HasSubstr("Due after it: \n  3c35 component 0"));
    EXPECT_THAT(plan.output, HasSubstr(", forced\n"));
    EXPECT_TRUE(std::filesystem::exists(files_ + "/printer-main.dat.force"));
}

TEST_F(Rehearsal, TellsWhatWouldFail) {
    const Outcome text = run("cat " ZELFWSIM_BUSES "/demo.toml");
    workspace_.write("bus.toml", text.output +
                                     "\n[[fault]]\ndevice = \"printer\"\nat = \"record\"\n"
                                     "number = 5\naction = \"stall\"\n");
    const Outcome plan = rehearse(workspace_.bus());
    EXPECT_EQ(plan.code, 3);
    EXPECT_THAT(plan.output, HasSubstr("    FAILS, rc="));
    EXPECT_THAT(plan.output, Not(HasSubstr("Due after it: nothing")));
}

TEST_F(Rehearsal, RefusesWhatItCannotUse) {
    EXPECT_EQ(rehearse(workspace_.path("none")).code, 2);
    EXPECT_EQ(rehearse(workspace_.path("none"), "-w file").code, 1);
    EXPECT_EQ(
        run(ZELFWSIM_TOOL " rehearse --updater /nowhere " + trace_of("-L") + " -p " + files_).code,
        2);
}

TEST_F(Rehearsal, ClonesWhatTheUpdaterLists) {
    const Outcome clone =
        run("cd " + workspace_.path("") +
            " && " ZELFWSIM_TOOL " run " ZELFWSIM_BUSES "/demo.toml -- " ZELFWSIM_TOOL
            " clone --updater " ZELFWUPDATE " -o till.toml");
    EXPECT_EQ(clone.code, 0) << clone.output;
    const auto list = [&](const std::string& bus) {
        return run("cd " + workspace_.path("") + " && " ZELFWSIM_TOOL " run --virtual " + bus +
                   " -- " ZELFWUPDATE " -L -l log -t 0")
            .output;
    };
    const std::string listed = list("till.toml");
    EXPECT_THAT(listed, HasSubstr("(SN='PR40021')"));
    EXPECT_EQ(listed, list(ZELFWSIM_BUSES "/demo.toml"));
}

}  // namespace
