// The updater as it is shipped, under a clock and a scheduler of our own.
#include "support/workspace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <string>

namespace {

using testing::HasSubstr;
using testing::Not;

/// The contents of all files below a directory, by their names in it.
using Files = std::map<std::string, std::string>;

Files files_below(const std::string& directory) {
    Files files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
        if (entry.is_regular_file()) {
            std::ifstream stream(entry.path(), std::ios::binary);
            files[entry.path().lexically_relative(directory).string()] = {
                std::istreambuf_iterator<char>(stream), {}};
        }
    }
    return files;
}

/// Without anything that tells the time, or how often the reader tried a device that was gone.
std::string timeless_log(const std::string& log) {
    const std::string without_date =
        std::regex_replace(log, std::regex("(USB Flash (Started|ended) at ).*"), "$1");
    return std::regex_replace(without_date,
                              std::regex("Read device not connected, rc=-4\n|"
                                         "Read Request to a002 failed, rc=13\n|"
                                         "[0-9]+: Failure reading from flash device.*\n"),
                              "");
}

/// The transfers of each pipe of each device. How those of two pipes lie to each other, and when,
/// is left to the run.
std::map<std::string, std::string> timeless_record(const std::string& record) {
    std::map<std::string, std::string> pipes;
    std::istringstream lines(record);
    const std::regex gone("\tinterrupt\t.*\t-4");
    for (std::string line; std::getline(lines, line);) {
        if (std::regex_search(line, gone)) {
            continue;
        }
        const std::string rest = line.substr(line.find('\t') + 1);
        const std::string device = rest.substr(0, rest.find('\t'));
        pipes[device + (rest.find("\tinterrupt\t") != std::string::npos ? " in" : "")] +=
            rest + "\n";
    }
    return pipes;
}

Files images(const Files& files) {
    Files found;
    for (const auto& [name, content] : files) {
        if (name.find("/image-") != std::string::npos) {
            found[name] = content;
        }
    }
    return found;
}

class UpdateInVirtualTime : public testing::Test {
  protected:
    /// Runs the updater on the demonstration's bus with a fault, afresh, and gives all that it
    /// left.
    Files afresh(const std::string& options, const std::string& command,
                 const std::string& fault = "") {
        std::filesystem::remove_all(place_);
        return again(options, command, fault);
    }

    Files again(const std::string& options, const std::string& command,
                const std::string& fault = "") {
        std::filesystem::create_directory(place_);
        std::ifstream demo(ZELFWSIM_BUSES "/demo.toml");
        const std::string bus{std::istreambuf_iterator<char>(demo), {}};
        workspace_.write("bus.toml", bus + fault);
        const std::string line = "cd " + place_ + " && timeout 50 " ZELFWSIM_TOOL " run " +
                                 options + " --state state --record record " + workspace_.bus() +
                                 " -- " ZELFWUPDATE " " + command +
                                 " -l log -t trace > console 2> errors";
        const auto begin = std::chrono::steady_clock::now();
        code_ = run(line).code;
        seconds_ = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        return files_below(place_);
    }

    const Workspace workspace_;
    const std::string place_ = workspace_.path("run");
    int code_ = -1;
    double seconds_ = 0;
};

constexpr const char* update_arguments = "-U -p " DEMO_FIRMWARE;

std::string fault(const std::string& rest) {
    return "\n[[fault]]\ndevice = \"keyboard\"\n" + rest;
}

TEST_F(UpdateInVirtualTime, TakesNextToNoTime) {
    const Files files = afresh("--virtual", update_arguments);
    EXPECT_EQ(code_, 0);
    EXPECT_THAT(files.at("console"), HasSubstr("Updated 7 devices\n"));
    const auto record = read_record(place_ + "/record");
    const double virtual_seconds = (record.back().time - record.front().time) / 1000;
    EXPECT_GT(virtual_seconds, 15);
    EXPECT_LT(seconds_, virtual_seconds / 2);
}

TEST_F(UpdateInVirtualTime, LeavesTheSameBytesForTheSameSeed) {
    for (const char* seed : {"0", "7", "8"}) {
        const std::string options = std::string("--virtual --seed ") + seed;
        const std::string command = std::string(update_arguments) + " -n 2";
        const Files first = afresh(options, command);
        EXPECT_EQ(code_, 0);
        EXPECT_EQ(first.at("errors"), "");
        const Files second = afresh(options, command);
        ASSERT_EQ(first.size(), second.size());
        for (const auto& [name, content] : first) {
            EXPECT_TRUE(content == second.at(name)) << name << " differs with seed " << seed;
        }
    }
}

TEST_F(UpdateInVirtualTime, ComesOutTheSameUnderDifferentSchedules) {
    std::set<std::string> records;
    const Files plain = afresh("--virtual", update_arguments);
    for (int seed = 1; seed <= 10; ++seed) {
        const Files files = afresh("--virtual --seed " + std::to_string(seed), update_arguments);
        EXPECT_EQ(code_, 0);
        EXPECT_EQ(files.at("errors"), "");
        EXPECT_THAT(files.at("console"), HasSubstr("Updated 7 devices\n"));
        EXPECT_TRUE(images(files) == images(plain)) << seed;
        records.insert(std::regex_replace(files.at("record"), std::regex("(^|\n)[0-9.]+"), "$1"));
    }
    EXPECT_EQ(records.size(), 10U);
}

TEST_F(UpdateInVirtualTime, BeginsWhenItIsTold) {
    const Files files = afresh("--virtual --from-epoch 951825600", "-L");
    EXPECT_THAT(files.at("log"), HasSubstr("USB Flash Started at Tue Feb 29 12:00:00 2000\n"));
}

TEST_F(UpdateInVirtualTime, FindsADeviceAwayThatTheRunBeforeHasReset) {
    afresh("--virtual", "-R -d 3c02");
    EXPECT_EQ(code_, 0);
    EXPECT_THAT(again("--virtual", "-L").at("console"), Not(HasSubstr("KB10555")));
    EXPECT_THAT(again("--virtual", "-U -d 3c35 -p " DEMO_FIRMWARE).at("console"),
                HasSubstr("Updated 3 devices"));
    EXPECT_THAT(again("--virtual", "-L").at("console"), HasSubstr("KB10555"));
}

TEST_F(UpdateInVirtualTime, IsEndedByASignalAtATransfer) {
    const std::string signal = fault("at = \"record\"\nnumber = 3\naction = \"signal\"\n");
    for (const char* options : {"", "--virtual", "--virtual --seed 3"}) {
        const Files files = afresh(std::string(options), "-U -d 3c02 -p " DEMO_FIRMWARE,
                                   signal + "signal = \"SIGTERM\"\n");
        EXPECT_EQ(code_, 128 + 15) << options;
        EXPECT_THAT(files.at("console"), HasSubstr("\nFinishing the component in progress, do not "
                                                   "disconnect the device\n"))
            << options;
        EXPECT_THAT(files.at("log"), HasSubstr("Updated 1 device\n")) << options;
    }
}

TEST_F(UpdateInVirtualTime, IsEndedByASignalLater) {
    const Files files = afresh("--virtual", "-U -d 3c02 -p " DEMO_FIRMWARE,
                               fault("at = \"erase\"\naction = \"signal\"\nsignal = \"SIGINT\"\n"
                                     "ms = 150\n"));
    EXPECT_EQ(code_, 128 + 2);
    EXPECT_THAT(files.at("console"), HasSubstr("\nFinishing the component in progress"));
}

TEST_F(UpdateInVirtualTime, LeavesTheSameStateAsInRealTimeWhenItIsKilled) {
    const std::string kill = fault(
        "at = \"record\"\nnumber = 7\naction = \"signal\"\n"
        "signal = \"SIGKILL\"\n");
    const std::string command = "-U -d 3c02 -p " DEMO_FIRMWARE;
    const Files virtual_run = afresh("--virtual", command, kill);
    EXPECT_EQ(code_, 128 + 9);
    const Files real_run = afresh("", command, kill);
    EXPECT_EQ(code_, 128 + 9);
    for (const char* file : {"staging.bin", "state.toml"}) {
        const std::string name = std::string("state/devices/keyboard/") + file;
        EXPECT_EQ(virtual_run.at(name), real_run.at(name));
    }
    again("--virtual", command);
    EXPECT_EQ(code_, 0);
}

struct CommonRun {
    const char* name;
    const char* command;
    const char* fault;
    int code;
};

class UpdateInBothTimes : public UpdateInVirtualTime,
                          public testing::WithParamInterface<CommonRun> {};

INSTANTIATE_TEST_SUITE_P(
    Runs, UpdateInBothTimes,
    testing::Values(CommonRun{"List", "-L", "", 0}, CommonRun{"Reset", "-R", "", 0},
                    CommonRun{"ReadBack", "-G 0 -d 3c02 -w data", "", 0},
                    CommonRun{"Update", "-U -d 3c02 -p " DEMO_FIRMWARE, "", 0},
                    CommonRun{"UpdateWithStall", "-U -d 3c02 -p " DEMO_FIRMWARE,
                              "at = \"record\"\nnumber = 3\naction = \"stall\"\n", 6},
                    CommonRun{"UpdateWithReject", "-U -d 3c02 -p " DEMO_FIRMWARE,
                              "at = \"erase\"\naction = \"reject\"\n", 0},
                    CommonRun{"UpdateWithUnplug", "-U -d 3c02 -p " DEMO_FIRMWARE,
                              "at = \"record\"\nnumber = 5\naction = \"unplug\"\n", 6}),
    [](const auto& each) { return each.param.name; });

TEST_P(UpdateInBothTimes, ComesOutTheSame) {
    const std::string faults = *GetParam().fault == '\0' ? "" : fault(GetParam().fault);
    const Files virtual_run = afresh("--virtual", GetParam().command, faults);
    EXPECT_EQ(code_, GetParam().code);
    Files real_run;
    // A machine that starves the updater makes it go without an answer: then once more.
    for (int tries = 0; tries < 3; ++tries) {
        real_run = afresh("", GetParam().command, faults);
        if (timeless_log(real_run.at("log")) == timeless_log(virtual_run.at("log"))) {
            break;
        }
    }
    EXPECT_EQ(code_, GetParam().code);
    EXPECT_EQ(virtual_run.at("console"), real_run.at("console"));
    EXPECT_EQ(virtual_run.at("errors"), real_run.at("errors"));
    EXPECT_EQ(timeless_log(virtual_run.at("log")), timeless_log(real_run.at("log")));
    EXPECT_EQ(timeless_record(virtual_run.at("record")), timeless_record(real_run.at("record")));
    EXPECT_TRUE(images(virtual_run) == images(real_run));
}

TEST_F(UpdateInVirtualTime, GoesWithoutAnAnswerWhenItIsStarved) {
    // The updater waits for the answer to a query for 100 ms.
    const std::string update = "-U -d 3c02 -p " DEMO_FIRMWARE;
    const auto plain = timeless_record(afresh("--virtual", update).at("record")).at("printer");
    bool differs = false;
    for (int seed = 1; seed <= 400 && !differs; ++seed) {
        const std::string options = "--virtual --hold-up 500 --seed " + std::to_string(seed);
        differs = timeless_record(afresh(options, update).at("record")).at("printer") != plain;
        EXPECT_EQ(code_, 0);
    }
    EXPECT_TRUE(differs);
}

}  // namespace
