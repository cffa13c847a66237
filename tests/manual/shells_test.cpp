// The completions of zsh and fish offer what bash's does, which is held against the programs. They
// are loaded by name from their directories, as these shells do it.
#include "support/child_process.h"
#include "support/files.h"
#include "support/temporary_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <string>
#include <vector>

using testing::ElementsAre;
using testing::IsSupersetOf;

namespace {

using Offer = std::set<std::string>;

struct Tool {
    const char* name;
    const char* program;
};
constexpr Tool tools[] = {
    {"zelfwfile", ZELFWFILE}, {"zelfwsim", ZELFWSIM}, {"zelfwtrace", ZELFWTRACE}};

class Shells : public testing::TestWithParam<std::string> {
  protected:
    Shells() {
        std::filesystem::create_directories(path("home"));
        std::filesystem::create_directories(path("till"));
        for (const char* file : {"a.toml", "b.dat", "C.DAT", "d.trace", "till/font.dat"}) {
            write_file(path(file), "");
        }
        surroundings_.directory = directory_.path();
        surroundings_.environment = {"HOME=" + path("home"), "XDG_CONFIG_HOME=" + path("home"),
                                     "TERM=dumb", "ZELFWUPDATE_COMPLETION_SYSFS=" + path("sysfs")};
    }

    std::string path(const std::string& name) const { return directory_.path(name); }
    void attach(const std::string& port, const std::string& vendor, const std::string& product,
                const std::string& serial) const {
        const std::string place = path("sysfs/" + port);
        std::filesystem::create_directories(place);
        write_file(place + "/idVendor", vendor + "\n");
        write_file(place + "/idProduct", product + "\n");
        write_file(place + "/serial", serial + "\n");
    }

    /// What the shell offers at the end of a line.
    Offer offered(const std::string& line) const {
        const std::string place = SOURCE_DIRECTORY "/packaging/completion/" + GetParam();
        const std::vector<std::string> words =
            GetParam() == "zsh"
                ? std::vector<std::string>{"timeout",
                                           "50",
                                           "zsh",
                                           "-f",
                                           SOURCE_DIRECTORY "/tests/manual/zsh_matches",
                                           place,
                                           line}
                : std::vector<std::string>{
                      "timeout",
                      "50",
                      "fish",
                      "--no-config",
                      "-c",
                      "set fish_complete_path $argv[1] $fish_complete_path\n"
                      "function " +
                          line.substr(0, line.find(' ')) +
                          "; end\n"
                          "complete -C $argv[2] | string replace -r '\\t.*' ''; true",
                      place,
                      line};
        const ChildEnd end = run_command(words, surroundings_);
        EXPECT_EQ(end.exit_code, 0) << end.output;
        Offer offer;
        for (std::string word : lines_of(end.output)) {
            // A directory has a slash in fish; zsh shows the word as it would be typed.
            word.resize(word.ends_with('/') ? word.size() - 1 : word.size());
            offer.insert(word == "-\\?" ? "-?" : word);
        }
        return offer;
    }
    /// What bash's completion offers there.
    Offer offered_by_bash(const std::string& line) const {
        std::vector<std::string> words = {"bash", "--norc", "-c",
                                          "source " SOURCE_DIRECTORY
                                          "/packaging/completion/$1\n"
                                          "COMP_WORDS=(\"$@\") COMP_CWORD=$(($# - 1))\n_$1\n"
                                          "printf '%s\\n' \"${COMPREPLY[@]}\"",
                                          "bash"};
        for (std::size_t at = 0; at <= line.size();) {
            const std::size_t end = std::min(line.find(' ', at), line.size());
            words.push_back(line.substr(at, end - at));
            at = end + 1;
        }
        const std::vector<std::string> lines = lines_of(run_command(words, surroundings_).output);
        return {lines.begin(), lines.end()};
    }

    static Offer commands_of(const Tool& tool) {
        const std::string help = run_command({tool.program, "--help"}).output;
        const std::regex line(std::string("\n  ") + tool.name + " ([a-z][a-z-]*)");
        Offer commands;
        for (auto at = std::sregex_iterator(help.begin(), help.end(), line);
             at != std::sregex_iterator(); ++at) {
            commands.insert((*at)[1].str());
        }
        EXPECT_GE(commands.size(), 5U) << tool.name;
        return commands;
    }

    const TemporaryDirectory directory_;
    ProgramRun surroundings_;
};

std::string shell_of(const testing::TestParamInfo<std::string>& info) {
    return info.param;
}

INSTANTIATE_TEST_SUITE_P(Each, Shells, testing::Values("zsh", "fish"), shell_of);

TEST_P(Shells, OfferEveryCommandOfTheHelp) {
    for (const Tool& tool : tools) {
        EXPECT_THAT(offered(std::string(tool.name) + " "), IsSupersetOf(commands_of(tool)));
        EXPECT_THAT(offered(std::string(tool.name) + " ch"),
                    testing::AnyOf(Offer{"check"}, Offer{}))
            << tool.name;
    }
}

TEST_P(Shells, OfferTheOptionsThatBashOffers) {
    for (const Tool& tool : tools) {
        for (const std::string& command : commands_of(tool)) {
            const std::string line = std::string(tool.name) + " " + command + " -";
            EXPECT_EQ(offered(line), offered_by_bash(line)) << line;
        }
    }
    EXPECT_EQ(offered("zelfwupdate -"), offered_by_bash("zelfwupdate -"));
    for (const char* line : {"zelfwupdate -U -", "zelfwupdate -F b.dat -"}) {
        Offer expected = offered_by_bash(line);
        // Some offer the command that is there again, or no help beside one.
        Offer offer = offered(line);
        for (Offer* one : {&expected, &offer}) {
            one->erase("-?");
            one->erase("-U");
        }
        EXPECT_EQ(offer, expected) << line;
    }
}

TEST_P(Shells, OfferWhatAnOptionTakes) {
    for (const char* line : {"zelfwupdate -E 1", "zelfwupdate -n ", "zelfwupdate -o ",
                             "zelfwupdate -G ", "zelfwupdate -c ", "zelfwtrace -k s"}) {
        EXPECT_EQ(offered(line), offered_by_bash(line)) << line;
    }
    EXPECT_THAT(offered("zelfwupdate -p till -F "), ElementsAre("font.dat"));
    for (const char* line :
         {"zelfwfile from-trace --run ", "zelfwupdate -1 ", "zelfwsim run --seed "}) {
        EXPECT_THAT(offered(line), testing::IsEmpty()) << line;
    }
}

TEST_P(Shells, OfferFiles) {
    EXPECT_THAT(offered("zelfwfile make a"), ElementsAre("a.toml"));
    EXPECT_THAT(offered("zelfwfile check b"), ElementsAre("b.dat"));
    EXPECT_THAT(offered("zelfwfile from-trace d"), ElementsAre("d.trace"));
    EXPECT_THAT(offered("zelfwfile from-trace d.trace -o ti"), ElementsAre("till"));
    EXPECT_THAT(offered("zelfwtrace explain d"), ElementsAre("d.trace"));
    EXPECT_THAT(offered("zelfwtrace pcap -o d"), ElementsAre("d.trace"));
    EXPECT_THAT(offered("zelfwsim check a"), ElementsAre("a.toml"));
    EXPECT_THAT(offered("zelfwsim from-trace d"), ElementsAre("d.trace"));
    EXPECT_THAT(offered("zelfwupdate -F b"), ElementsAre("b.dat"));
    EXPECT_THAT(offered("zelfwupdate -l d"), ElementsAre("d.trace"));
    EXPECT_THAT(offered("zelfwupdate -p ti"), ElementsAre("till"));
}

TEST_P(Shells, OfferRootTheAttachedDevicesAndRunNothingOfThem) {
    if (!is_super_user()) {
        GTEST_SKIP() << "needs root";
    }
    attach("1-1", "7a01", "3c35", "PR40021");
    attach("1-2", "7a03", "3c12", "$(touch ran)`touch ran`;touch ran");
    attach("1-4", "1d6b", "0002", "0000:00:14.0");
    EXPECT_THAT(offered("zelfwupdate -d "), ElementsAre("3c12", "3c35"));
    EXPECT_THAT(offered("zelfwupdate -s P"), ElementsAre("PR40021"));
    EXPECT_THAT(offered("zelfwupdate -s "), testing::SizeIs(2));
    EXPECT_THAT(offered("zelfwupdate -s \\$"), testing::SizeIs(1));
    EXPECT_FALSE(std::filesystem::exists(path("ran")));
}

}  // namespace
