// `zelfwsim run`: a command on the simulated bus, and on nothing else.
#include "support/bench.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <utility>
#include <vector>

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

const std::string run_tool = ZELFWSIM_TOOL " run ";
const std::string list = " " ZELFWUPDATE " -l 0 -t 0 -L";
const std::string listed = "PID: 3c35  COMP: 00  TYPE: FW   EC: 01.02.03 (SN='PR1')\n";

/// A bus with one printer, and a library of the USB library's name that is no simulation.
class Run : public testing::Test {
  protected:
    Run() {
        workspace.use_bus(printer_bus());
        for (const char* name : {"ZELFWSIM_BUS", "ZELFWSIM_STATE"}) {
            unsetenv(name);
        }
        setenv("DECOY_NOTE", note.c_str(), 1);
    }
    /// Runs a command, with its arguments, on the bus.
    Outcome on_bus(const std::string& command, const std::string& options = "",
                   const std::string& before = "") const {
        return run(before + run_tool + options + " " + workspace.bus() + " -- " + command);
    }
    std::string script(const std::string& name, const std::string& text) const {
        const std::string file = workspace.write(name, text);
        chmod(file.c_str(), 0755);
        return file;
    }
    bool decoy_was_loaded() const { return std::filesystem::exists(note); }

    Workspace workspace;
    const std::string note = workspace.path("decoy-was-here");
    const std::string decoy_path = "LTDL_LIBRARY_PATH=" USB_DECOY " LD_LIBRARY_PATH=" USB_DECOY " ";
};

class RunAsRoot : public Run {
  protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs the super-user";
        }
        if (run("unshare --mount true").code != 0) {
            GTEST_SKIP() << "needs mount namespaces";
        }
    }
    /// Runs a script in which this machine has one USB device node.
    Outcome with_a_node(const std::string& text) const {
        const std::string device = workspace.path("dev");
        return run("unshare --mount --propagation private sh -ec 'mkdir -p " + device +
                   "/bus/usb/001; cd " + device +
                   "; touch null bus/usb/001/004; mount --bind /dev/null null; mount --rbind . "
                   "/dev; " +
                   text + "'");
    }
};

}  // namespace

TEST_F(RunAsRoot, ListsTheDevicesOfTheBusFile) {
    const Outcome result = on_bus(list);
    EXPECT_EQ(result.code, 0);
    EXPECT_THAT(result.output, StartsWith(listed));
}

TEST_F(RunAsRoot, DoesSoWithoutAnyEnvironment) {
    // A sanitizer's settings are its own affair.
    EXPECT_THAT(on_bus(list, "", "env -i ${ASAN_OPTIONS:+ASAN_OPTIONS=$ASAN_OPTIONS} ").output,
                StartsWith(listed));
}

TEST_F(RunAsRoot, NeverLoadsTheLibraryOfASearchPath) {
    EXPECT_THAT(on_bus(list, "", decoy_path).output, StartsWith(listed));
    EXPECT_FALSE(decoy_was_loaded());
}

TEST_F(Run, OpensTheSimulationByEveryNameOfTheLibrary) {
    EXPECT_EQ(run(decoy_path + USB_OPENER " libusb-1.0.so").output, "another\n");
    ASSERT_TRUE(decoy_was_loaded());
    std::filesystem::remove(note);
    for (const char* name :
         {"libusb-1.0.so", "libusb-1.0.so.0", "libusb-1.0.so.0.0.0", USB_DECOY "/libusb-1.0.so"}) {
        EXPECT_THAT(on_bus(std::string(USB_OPENER " ") + name, "", decoy_path).output,
                    HasSubstr("simulation\n"))
            << name;
    }
    EXPECT_FALSE(decoy_was_loaded());
    EXPECT_THAT(on_bus(USB_OPENER " libm.so.6").output, HasSubstr("another\n"));
}

TEST_F(Run, EndsAProgramThatIsLinkedToAnotherLibrary) {
    EXPECT_EQ(run(USB_BYSTANDER).code, 0);
    const Outcome result = on_bus(USB_BYSTANDER);
    EXPECT_EQ(result.code, 125);
    EXPECT_THAT(result.output, HasSubstr("libusb-1.0.so: loaded, but not a simulation"));
}

TEST_F(Run, TakesTheSimulationOfADirectoryThatItIsTold) {
    const std::string own = std::filesystem::path(ZELFWSIM_LIBRARY).parent_path();
    EXPECT_THAT(on_bus(USB_OPENER " libusb-1.0.so", "--library " + own).output,
                HasSubstr("simulation\n"));
    for (const char* wrong : {USB_DECOY, "/does/not/exist"}) {
        const Outcome result = on_bus("true", std::string("--library ") + wrong);
        EXPECT_EQ(result.code, 122) << wrong;
        EXPECT_EQ(result.output,
                  std::string("zelfwsim: ") + wrong + "/libusb-1.0.so: no simulation\n");
    }
    EXPECT_FALSE(decoy_was_loaded());
}

TEST_F(Run, FailsWhenTheSimulationCannotBeOpenedWhateverTheCommandSays) {
    const std::string folder = workspace.path("damaged");
    const std::string library = folder + "/libusb-1.0.so";
    std::filesystem::create_directory(folder);
    std::filesystem::copy_file(ZELFWSIM_LIBRARY, library);
    const std::string file =
        script("open", "#!/bin/sh\n" USB_OPENER " libusb-1.0.so\necho \"code $?\"\n");
    const auto open_it = [&] { return on_bus(file, "--library " + folder, decoy_path); };
    // The machine that it is for.
    std::fstream(library, std::ios::in | std::ios::out | std::ios::binary).seekp(18).put('\x7f');
    Outcome result = open_it();
    EXPECT_EQ(result.code, 125);
    EXPECT_THAT(result.output, HasSubstr("; nothing was sent\ncode 125\n"));
    EXPECT_THAT(result.output, HasSubstr("the command did not run on the simulated bus\n"));
    // The loader itself falls over a file that ends too early: behind its name for a simulation.
    std::filesystem::copy_file(ZELFWSIM_LIBRARY, library,
                               std::filesystem::copy_options::overwrite_existing);
    std::filesystem::resize_file(library, read_file(library).find("zelfwsim_simulation") + 64);
    result = open_it();
    EXPECT_EQ(result.code, 125);
    EXPECT_THAT(result.output, HasSubstr("the command did not run on the simulated bus\n"));
    EXPECT_FALSE(decoy_was_loaded());
}

TEST_F(Run, FailsWithoutTheSimulationOfTheCommandsWordSize) {
    const std::string tool = workspace.path("bin/sim/zelfwsim");
    std::filesystem::create_directories(workspace.path("bin/sim"));
    std::filesystem::copy_file(ZELFWSIM_TOOL, tool);
    const Outcome result = run(tool + " run " + workspace.bus() + " -- " + USB_OPENER + " x");
    EXPECT_EQ(result.code, 122);
    EXPECT_THAT(result.output, HasSubstr("-bit program, and there is no simulation for it: install "
                                         "zelfwupdate-sim:"));
}

TEST_F(Run, FailsWhenTheCommandTakesNoGuard) {
    const Outcome result = on_bus(USB_ALONE);
    EXPECT_EQ(result.code, 125);
    EXPECT_THAT(result.output, HasSubstr("the command ran without the guard, exit code 0\n"));
}

TEST_F(RunAsRoot, RunsScripts) {
    const std::string file =
        script("rehearse", "#!/bin/sh\n" + list + "\necho \"code $?\"\nexit 5\n");
    const Outcome result = on_bus(file, "", decoy_path);
    EXPECT_EQ(result.code, 5);
    EXPECT_THAT(result.output, StartsWith(listed));
    EXPECT_THAT(result.output, HasSubstr("code 0\n"));
    EXPECT_FALSE(decoy_was_loaded());
}

TEST_F(Run, FindsTheCommandOnTheSearchPathAndGivesItsExitCode) {
    script("rehearse", "#!/bin/sh\nexit $1\n");
    const std::string path = "PATH=" + workspace.path("") + ":$PATH ";
    for (const int code : {0, 3, 13, 200}) {
        EXPECT_EQ(on_bus("rehearse " + std::to_string(code), "", path).code, code);
    }
}

TEST_F(Run, EndsByTheSignalThatEndedTheCommand) {
    EXPECT_EQ(on_bus("sh -c 'kill -KILL $$'").code, 128 + SIGKILL);
    EXPECT_EQ(on_bus("sh -c 'kill -TERM $$'").code, 128 + SIGTERM);
}

TEST_F(Run, HandsSignalsToTheCommand) {
    const std::string file = script("wait",
                                    "#!/bin/sh\ntrap 'exit 9' TERM\ntrap 'exit 8' INT\n: >ready\n"
                                    "while :; do sleep 0.05; done\n");
    for (const auto& [name, code] : {std::pair("TERM", 9), std::pair("INT", 8)}) {
        const std::string start = run_tool + workspace.bus() + " -- " + file;
        // A shell's background commands ignore what a terminal sends.
        EXPECT_EQ(run("cd " + workspace.path("") + "; rm -f ready; env --default-signal=INT " +
                      start + " & until [ -e " + workspace.path("ready") +
                      " ]; do sleep 0.05; done; kill -" + name + " $!; wait $!")
                      .code,
                  code);
    }
}

TEST_F(RunAsRoot, HidesTheNodesOfDevices) {
    EXPECT_THAT(with_a_node("find /dev/bus/usb").output, HasSubstr("/dev/bus/usb/001/004\n"));
    EXPECT_EQ(with_a_node(run_tool + workspace.bus() + " -- find /dev/bus/usb").output,
              "/dev/bus/usb\n");
    EXPECT_EQ(with_a_node(run_tool + workspace.bus() + " -- touch /dev/bus/usb/x").code, 1);
}

TEST_F(RunAsRoot, StartsNothingWhenItCannotHideThem) {
    const std::string weak = "setpriv --bounding-set=-sys_admin --inh-caps=-sys_admin " + run_tool;
    const Outcome result = with_a_node(weak + workspace.bus() + " -- echo started");
    EXPECT_EQ(result.code, 124);
    EXPECT_THAT(result.output, HasSubstr("the attached devices cannot be hidden: "));
    EXPECT_THAT(result.output, Not(HasSubstr("started")));
}

TEST_F(RunAsRoot, LeavesNoRealLibraryToAProgramThatDropsItsEnvironment) {
    const std::string start =
        "unshare --mount --propagation private sh -ec 'mount --bind " USB_DECOY
        " /usr/local/lib; exec ";
    const std::string opener = "env -i DECOY_NOTE=" + note + " LTDL_LIBRARY_PATH=/usr/local/lib ";
    const Outcome result = run(start + run_tool + workspace.bus() + " -- " + opener + list + "'");
    EXPECT_EQ(result.code, 3);
    EXPECT_THAT(result.output, HasSubstr("Failed loading libusb-1.0.so"));
    EXPECT_FALSE(decoy_was_loaded());
}

TEST_F(RunAsRoot, TellsAnOrdinaryUserThatTheUpdaterNeedsRoot) {
    chmod(workspace.path("").c_str(), 0755);
    const std::string user = "setpriv --reuid=65534 --regid=65534 --clear-groups ";
    const Outcome result = on_bus("grep NoNewPrivs /proc/self/status", "", user);
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.output,
              "zelfwsim: the updater needs root, even here: sudo zelfwsim run ...\n"
              "NoNewPrivs:\t1\n");
    EXPECT_EQ(on_bus(list, "", user).code, 2);
}

TEST_F(Run, RefusesCommandsThatChangeTheUser) {
    const std::string file = workspace.path("sudo");
    std::filesystem::copy_file(USB_OPENER, file);
    chmod(file.c_str(), 04755);
    const Outcome result = on_bus(file + " x");
    EXPECT_EQ(result.code, 123);
    EXPECT_THAT(result.output, HasSubstr("put it in front: " + file + " zelfwsim run ..."));
}

TEST_F(Run, RefusesWhatItCannotStart) {
    const std::string text = script("text", "no program\n");
    EXPECT_EQ(on_bus("/does/not/exist").code, 123);
    EXPECT_EQ(on_bus("no-such-command").code, 123);
    EXPECT_EQ(on_bus(workspace.bus()).code, 123);
    EXPECT_EQ(on_bus(text).output, "zelfwsim: " + text + ": neither a program nor a script\n");
    EXPECT_EQ(on_bus(script("lost", "#!/does/not/exist\n")).code, 123);
    EXPECT_EQ(on_bus("true", "--preload " + text).code, 123);
}

TEST_F(Run, RefusesABusFileWithAnError) {
    const std::string bad = workspace.write("bad.toml", "\n\nname = 3\n");
    const Outcome result = run(run_tool + bad + " -- echo started");
    EXPECT_EQ(result.code, 121);
    EXPECT_EQ(result.output, bad + ":3: unknown key \"name\"\n");
    EXPECT_EQ(run(run_tool + "/does/not/exist -- true").code, 121);
}

TEST_F(Run, TellsWhatItTakes) {
    const std::string bus = workspace.bus();
    for (const std::string& wrong : std::vector<std::string>{
             "", bus, bus + " --", bus + " true", "-- true", bus + " true -- true",
             "--fly " + bus + " -- true", "--state", "--hubs"}) {
        const Outcome result = run(run_tool + wrong);
        EXPECT_EQ(result.code, 120) << wrong;
        EXPECT_THAT(result.output, HasSubstr("Try: zelfwsim --help")) << wrong;
    }
}

TEST_F(RunAsRoot, KeepsStateAndRecordWhereItIsTold) {
    const std::string options =
        "--state " + workspace.path("till") + " --record " + workspace.path("record");
    EXPECT_EQ(on_bus(list, options).code, 0);
    EXPECT_TRUE(std::filesystem::exists(workspace.path("till/devices/printer")));
    EXPECT_THAT(workspace.read("record"), HasSubstr("\tcontrol\t"));
}

TEST_F(Run, AnswersForHubPortsWhenTold) {
    const std::string query = ZELFWSIM_HUB_QUERY " /proc/bus/usb/001/001";
    EXPECT_THAT(on_bus(query).output, HasSubstr("open 2\n"));
    EXPECT_THAT(on_bus(query, "--hubs").output, HasSubstr("17: 2 0 0 "));
    EXPECT_THAT(on_bus(query, "--preload " ZELFWSIM_HUBS).output, HasSubstr("17: 2 0 0 "));
}

TEST_F(Run, LeavesNothingBehind) {
    const Outcome result = on_bus("sh -c 'echo \"$ZELFWSIM_REPORT\"; kill -KILL $$'");
    const std::size_t begin = result.output.find('/');
    const std::filesystem::path report =
        result.output.substr(begin, result.output.find('\n', begin) - begin);
    EXPECT_EQ(report.filename(), "report");
    EXPECT_FALSE(std::filesystem::exists(report.parent_path()));
}
