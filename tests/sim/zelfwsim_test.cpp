// The command line tool.
#include "model/bus_file/bus_file.h"
#include "model/bus_file/fleet.h"
#include "support/bench.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::HasSubstr;
using testing::StartsWith;

const std::string tool = ZELFWSIM_TOOL;

}  // namespace

TEST(Zelfwsim, ChecksABusFile) {
    const Outcome good = run(tool + " check " ZELFWSIM_BUSES "/demo.toml");
    EXPECT_EQ(good.code, 0);
    EXPECT_THAT(good.output, HasSubstr("printer              7a01:3c35  bus 1 address 3"));
    const Workspace workspace;
    const Outcome bad = run(tool + " check " + workspace.write("bad.toml", "\n\nname = 3\n"));
    EXPECT_EQ(bad.code, 2);
    EXPECT_EQ(bad.output, workspace.path("bad.toml") + ":3: unknown key \"name\"\n");
}

TEST(Zelfwsim, WarnsOfFaultsThatNoRunReaches) {
    const std::string mouse_table =
        "[[device]]\nname = \"m\"\nvendor = 1\nproduct = 2\n"
        "[[device.interface]]\nkind = \"mouse\"\n";
    const auto fault = [](const std::string& device, const std::string& rest) {
        return "[[fault]]\ndevice = \"" + device + "\"\naction = \"stall\"\n" + rest;
    };
    const Workspace workspace;
    const std::string bus = workspace.write(
        "bus.toml", printer_bus() + mouse_table + fault("m", "at = \"erase\"\n") +
                        fault("m", "at = \"string\"\nnumber = 900\n") +
                        fault("printer", "at = \"record\"\ncomponent = 9\n") +
                        fault("printer", "at = \"record\"\nnumber = 900\n") +
                        fault("printer", "at = \"checksum\"\nnumber = 2\ncomponent = 0\n") +
                        fault("printer", "at = \"erase\"\nnumber = 900\n") +
                        fault("printer", "at = \"erase\"\n"));
    const Outcome outcome = run("{ " + tool + " check " + bus + " >/dev/null; }");
    EXPECT_EQ(outcome.code, 0);
    const std::string start = bus + ": warning: the fault ";
    EXPECT_THAT(
        outcome.output,
        testing::MatchesRegex(
            start + "record@9#1:stall of .printer. never strikes: the device has no component 9\n" +
            start +
            "checksum@0#2:stall of .printer. never strikes: an update sends one image for "
            "each component, so at most 1 to this device\n" +
            start +
            "erase#900:stall of .printer. never strikes: an update sends one image for "
            "each component, so at most [0-9]+ to this device\n" +
            start +
            "erase#1:stall of .m. never strikes: the device has no flash interface, so no "
            "command reaches it\n"));
}

TEST(Zelfwsim, GeneratesTheSameBusEveryTime) {
    EXPECT_EQ(run(tool + " generate 4 | cmp - " ZELFWSIM_GOLDEN "/fleet-4.toml").output, "");
}

TEST(Zelfwsim, GeneratesBusesOfEverySize) {
    const Workspace workspace;
    for (const unsigned count : {1U, 7U, 8U, 96U, 97U, 128U, zelfsim::largest_fleet}) {
        const auto bus =
            zelfsim::read_bus_file(workspace.write("fleet.toml", zelfsim::fleet(count)));
        unsigned devices = 0;
        unsigned flash = 0;
        for (const auto& device : bus.devices) {
            devices += device.is_hub ? 0 : 1;
            flash += device.flash ? 1 : 0;
        }
        EXPECT_EQ(devices, count);
        EXPECT_EQ(flash, count);
    }
}

TEST(Zelfwsim, ShowsDevicesAsTheyAreNow) {
    Bench bench;
    bench.update(make_image(0, {1, 5, 1}));
    const std::string command = tool + " show " + bench.workspace().bus() + " ";
    EXPECT_THAT(run(command + bench.workspace().state()).output,
                HasSubstr("01.05.01  firmware       increasing  waits for the reset"));
    bench.reset();
    EXPECT_THAT(run(command + bench.workspace().state()).output,
                HasSubstr("01.05.01  firmware       increasing  updated"));
    EXPECT_THAT(run(command).output, HasSubstr("01.02.03  firmware       increasing  factory"));
    EXPECT_EQ(run(command + "/does/not/exist").code, 2);
}

TEST(Zelfwsim, TellsWhatItTakes) {
    EXPECT_EQ(run(tool + " --help").code, 0);
    EXPECT_THAT(run(tool + " --help").output, StartsWith("zelfwsim: the simulated bus"));
    for (const char* command : {" ", " check ", " generate ", " show ", " serve "}) {
        EXPECT_EQ(run(tool + command + "--help").output, run(tool + " -h").output) << command;
        EXPECT_EQ(run(tool + command + "--version").output, "zelfwsim " ZELF_VERSION "\n");
    }
    for (const char* wrong : {"", " fly", " check", " check a b", " generate", " generate 0",
                              " generate 1001", " generate x", " show"}) {
        const Outcome result = run(tool + wrong);
        EXPECT_EQ(result.code, 1) << wrong;
        EXPECT_THAT(result.output, HasSubstr("Try: zelfwsim --help")) << wrong;
    }
}
