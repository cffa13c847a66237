// The completion offers what the program takes: it is sourced and called as bash does it.
#include "option_table.h"
#include "support/child_process.h"
#include "support/files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <string>
#include <vector>

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

namespace {

/// A directory with firmware files and a made-up sysfs.
class Completion : public testing::Test {
  protected:
    Completion() {
        std::filesystem::create_directories(directory_ / "sysfs");
        std::filesystem::permissions(directory_, std::filesystem::perms::all);
        // An ordinary user may not be let into the sources.
        std::filesystem::copy(SOURCE_DIRECTORY "/packaging/completion", directory_ / "completion");
        surroundings.directory = directory_;
        surroundings.environment = {"ZELFWUPDATE_COMPLETION_SYSFS=" +
                                    (directory_ / "sysfs").string()};
    }
    ~Completion() override { std::filesystem::remove_all(directory_); }

    void add_file(const std::string& name, const std::string& text = "") {
        const std::filesystem::path path = directory_ / name;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path) << text;
    }
    void attach(const std::string& port, const std::string& vendor, const std::string& product,
                const std::string& serial) {
        const std::string device = "sysfs/" + port + "/";
        add_file(device + "idVendor", vendor + "\n");
        add_file(device + "idProduct", product + "\n");
        add_file(device + "serial", serial + "\n");
    }
    bool exists(const std::string& name) const {
        return std::filesystem::exists(directory_ / name);
    }
    /// What is offered for the last of these words behind the program's name.
    std::vector<std::string> offered(std::vector<std::string> words,
                                     const std::string& program = "zelfwupdate") const {
        words.insert(words.begin(), {"bash", "--norc", "-c",
                                     "source completion/\"$0\"\n"
                                     "COMP_WORDS=(\"$0\" \"$@\") COMP_CWORD=$#\n"
                                     "_\"$0\"\n"
                                     "((${#COMPREPLY[@]} == 0)) ||"
                                     " printf '%s\\n' \"${COMPREPLY[@]}\"",
                                     program});
        const ChildEnd output = run_command(words, surroundings);
        EXPECT_EQ(output.exit_code, 0) << output.output;
        return lines_of(output.output);
    }

    ProgramRun surroundings;

  private:
    std::filesystem::path directory_ =
        std::filesystem::path(testing::TempDir()) / ("completion." + std::to_string(getpid()));
};

/// Zero to 100, as far as the program takes the number with this option.
std::vector<std::string> numbers_taken(const std::string& option) {
    std::vector<std::string> numbers;
    for (int number = 0; number <= 100; ++number) {
        const std::string text = std::to_string(number);
        if (run_command({ZELFWUPDATE, "-l", "0", "-t", "0", option, text, "-V"}).exit_code == 0) {
            numbers.push_back(text);
        }
    }
    return numbers;
}

}  // namespace

TEST_F(Completion, IsThatOfTheProgramsOptionTable) {
    const ChildEnd output = run_command(
        {"bash", "--norc", "-c", "source completion/zelfwupdate; echo \"$_zelfwupdate_options\""},
        surroundings);
    EXPECT_EQ(output.output, option_string() + "\n");
}

TEST_F(Completion, OffersEveryOption) {
    std::vector<std::string> options;
    for (const auto& [letter, takes_argument] : option_table()) {
        options.push_back(std::string("-") + letter);
    }
    EXPECT_THAT(offered({"-"}), testing::UnorderedElementsAreArray(options));
    EXPECT_THAT(offered({""}), testing::UnorderedElementsAreArray(options));
}

TEST_F(Completion, OffersNoOtherCommandBesideTheOneThatIsThere) {
    EXPECT_THAT(offered({"-F", "a.dat", "-"}), Contains("-F"));
    EXPECT_THAT(offered({"-F", "a.dat", "-"}), Not(Contains("-U")));
    EXPECT_THAT(offered({"-fU", "-"}), Not(Contains("-L")));
    EXPECT_THAT(offered({"-fU", "-"}), Contains("-a"));
    // An argument is no command, even one that looks like it.
    EXPECT_THAT(offered({"-l", "-U", "-"}), Contains("-L"));
    EXPECT_THAT(offered({"-lU", "-"}), Contains("-L"));
}

TEST_F(Completion, OffersTheExitCodesThatTheProgramExplains) {
    std::vector<std::string> codes;
    for (int code = 0; code < 100; ++code) {
        const std::string number = std::to_string(code);
        if (run_command({ZELFWUPDATE, "-E", number}).output.find("Unrecognized") ==
            std::string::npos) {
            codes.push_back(number);
        }
    }
    EXPECT_EQ(offered({"-E", ""}), codes);
    EXPECT_THAT(offered({"-E", "1"}), ElementsAre("1", "10", "11", "12", "13"));
}

TEST_F(Completion, OffersTheOutputLevelsThatTheProgramTakes) {
    EXPECT_EQ(offered({"-n", ""}), numbers_taken("-n"));
}

TEST_F(Completion, OffersTheMiscellaneousSwitchesThatTheProgramExplains) {
    std::vector<std::string> switches;
    for (const std::string& line : lines_of(run_command({ZELFWUPDATE, "-o", "?"}).output)) {
        if (!line.empty() && line.front() >= '0' && line.front() <= '9') {
            switches.push_back(line.substr(0, line.find(' ')));
        }
    }
    ASSERT_THAT(switches, Not(IsEmpty()));
    switches.emplace_back("help");
    EXPECT_EQ(offered({"-o", ""}), switches);
}

TEST_F(Completion, OffersFirmwareFilesAndDirectoriesWhereOneIsNamed) {
    add_file("printer.dat");
    add_file("SCANNER.DAT");
    add_file("notes.txt");
    add_file("till 1/font.dat");
    for (const char* option : {"-F", "-D"}) {
        EXPECT_THAT(offered({option, ""}), UnorderedElementsAre("printer.dat", "SCANNER.DAT",
                                                                "till 1", "sysfs", "completion"));
        EXPECT_THAT(offered({option, "till 1/"}), ElementsAre("till 1/font.dat"));
    }
}

TEST_F(Completion, OffersFirmwareFilesOfTheDirectoryThatWasGiven) {
    add_file("till 1/font.dat");
    add_file("till 1/notes.txt");
    add_file("printer.dat");
    EXPECT_THAT(offered({"-p", "till\\ 1", "-F", ""}), ElementsAre("font.dat"));
    EXPECT_THAT(offered({"-U", "-p'till 1/'", "-F", "f"}), ElementsAre("font.dat"));
    EXPECT_THAT(offered({"-p", "till\\ 1", "-D", "p"}), ElementsAre("printer.dat"));
}

TEST_F(Completion, OffersDirectoriesForTheFirmwareDirectory) {
    add_file("printer.dat");
    add_file("till/font.dat");
    EXPECT_THAT(offered({"-p", ""}), UnorderedElementsAre("till", "sysfs", "completion"));
}

TEST_F(Completion, OffersAnyFileForJournalsListsAndOutput) {
    add_file("notes.txt");
    for (const char* option : {"-C", "-l", "-r", "-t", "-w"}) {
        EXPECT_THAT(offered({option, "no"}), ElementsAre("notes.txt"));
    }
}

TEST_F(Completion, OffersNothingForATimeOut) {
    add_file("1000");
    EXPECT_THAT(offered({"-1", ""}), IsEmpty());
}

TEST_F(Completion, OffersRootTheProductsAndSerialNumbersOfAttachedDevices) {
    if (!is_super_user()) {
        GTEST_SKIP() << "needs root";
    }
    attach("1-1", "7a01", "3c35", "PR40021");
    attach("1-2", "7a03", "3c12", "SC 7");
    attach("1-3", "7a01", "3c35", "PR40022");
    attach("1-4", "1d6b", "0002", "0000:00:14.0");
    add_file("sysfs/1-1:1.0/bInterfaceNumber", "00\n");
    EXPECT_THAT(offered({"-d", ""}), UnorderedElementsAre("3c35", "3c12"));
    EXPECT_THAT(offered({"-d", "3c3"}), ElementsAre("3c35"));
    EXPECT_THAT(offered({"-d", "3C"}), UnorderedElementsAre("3C35", "3C12"));
    EXPECT_THAT(offered({"-s", ""}), UnorderedElementsAre("PR40021", "PR40022", "SC\\ 7"));
}

TEST_F(Completion, OffersAnOrdinaryUserNoAttachedDevices) {
    if (!is_super_user()) {
        GTEST_SKIP() << "only root can become an ordinary user";
    }
    attach("1-1", "7a01", "3c35", "PR40021");
    surroundings.as_ordinary_user = true;
    EXPECT_THAT(offered({"-d", ""}), IsEmpty());
    EXPECT_THAT(offered({"-s", ""}), IsEmpty());
    EXPECT_THAT(offered({"-E", "9"}), ElementsAre("9"));
}

TEST_F(Completion, NeverRunsWhatADeviceOrFileIsCalled) {
    if (!is_super_user()) {
        GTEST_SKIP() << "needs root";
    }
    attach("1-1", "7a01", "3c35", "$(touch ran)`touch ran`;touch ran\x1b[2J");
    add_file("$(touch ran).dat");
    EXPECT_THAT(offered({"-s", ""}), ElementsAre("$'$(touch ran)`touch ran`;touch ran\\E[2J'"));
    EXPECT_THAT(offered({"-F", "$"}), ElementsAre("$(touch ran).dat"));
    EXPECT_THAT(offered({"-p", "$(touch ran)", "-F", ""}), IsEmpty());
    EXPECT_FALSE(exists("ran"));
}

TEST_F(Completion, OffersZelfwfileItsCommandsAndTheirFiles) {
    add_file("a.toml");
    add_file("b.dat");
    add_file("c.trace");
    EXPECT_THAT(offered({""}, "zelfwfile"),
                UnorderedElementsAre("make", "check", "show", "diff", "extract", "from-trace",
                                     "--help", "--version"));
    EXPECT_THAT(offered({"from-trace", "-"}, "zelfwfile"),
                ElementsAre("--run", "-o", "--output", "-h", "--help", "--version"));
    EXPECT_THAT(offered({"from-trace", "c"}, "zelfwfile"), Contains("c.trace"));
    EXPECT_THAT(offered({"from-trace", "--run", ""}, "zelfwfile"), IsEmpty());
    EXPECT_THAT(offered({"show", "-"}, "zelfwfile"),
                ElementsAre("-j", "--json", "-h", "--help", "--version"));
    EXPECT_THAT(offered({"diff", "b.dat", "b"}, "zelfwfile"), ElementsAre("b.dat"));
    EXPECT_THAT(offered({"extract", "b"}, "zelfwfile"), ElementsAre("b.dat"));
    EXPECT_THAT(offered({"make", "a"}, "zelfwfile"), ElementsAre("a.toml"));
    EXPECT_THAT(offered({"make", "b"}, "zelfwfile"), IsEmpty());
    EXPECT_THAT(offered({"make", "a.toml", "-"}, "zelfwfile"),
                ElementsAre("-o", "--output", "-h", "--help", "--version"));
    EXPECT_THAT(offered({"check", "-"}, "zelfwfile"), ElementsAre("-h", "--help", "--version"));
    EXPECT_THAT(offered({"make", "a.toml", "-o", "b"}, "zelfwfile"), ElementsAre("b.dat"));
    EXPECT_THAT(offered({"check", "b.dat", "b"}, "zelfwfile"), ElementsAre("b.dat"));
}

TEST_F(Completion, OffersZelfwsimTheCommandsAndOptionsOfItsHelp) {
    add_file("a.toml");
    add_file("b.trace");
    const std::vector<std::string> help = lines_of(run_command({ZELFWSIM, "--help"}).output);
    std::set<std::string> commands = {"--help", "--version"};
    std::string command;
    for (const std::string& line : help) {
        std::smatch parts;
        if (std::regex_match(line, parts, std::regex("  zelfwsim ([a-z-]+).*"))) {
            command = parts.str(1);
            commands.insert(command);
        } else if (std::regex_match(line, parts, std::regex(" {6}(--[a-z-]+).*"))) {
            EXPECT_THAT(offered({command, "-"}, "zelfwsim"), Contains(parts.str(1))) << command;
        }
    }
    EXPECT_THAT(commands, testing::IsSupersetOf({"run", "from-trace", "rehearse"}));
    EXPECT_THAT(offered({""}, "zelfwsim"), testing::UnorderedElementsAreArray(commands));
    EXPECT_THAT(offered({"check", "a"}, "zelfwsim"), ElementsAre("a.toml"));
    EXPECT_THAT(offered({"check", "b"}, "zelfwsim"), IsEmpty());
    EXPECT_THAT(offered({"from-trace", "b"}, "zelfwsim"), ElementsAre("b.trace"));
    EXPECT_THAT(offered({"generate", ""}, "zelfwsim"), IsEmpty());
}

TEST_F(Completion, OffersZelfwtraceTheOptionsOfItsHelp) {
    std::vector<std::string> options;
    for (const std::string& line : lines_of(run_command({ZELFWTRACE, "--help"}).output)) {
        const std::regex option(R"(^ {2,6}(?:(-[a-z]), )?(--[a-z]+).*)");
        std::smatch parts;
        if (std::regex_match(line, parts, option)) {
            options.push_back(parts.str(2));
            if (parts[1].matched) {
                options.push_back(parts.str(1));
            }
        }
    }
    EXPECT_THAT(options, Contains("--json"));
    std::set<std::string> all;
    for (const char* command : {"show", "summary", "pcap", "redact"}) {
        const std::vector<std::string> some = offered({command, "-"}, "zelfwtrace");
        EXPECT_THAT(some, testing::IsSupersetOf({"--device", "--utc", "--help", "--version"}));
        all.insert(some.begin(), some.end());
    }
    const std::vector<std::string> report = offered({"report", "-"}, "zelfwtrace");
    EXPECT_THAT(report, Not(Contains("--device")));
    all.insert(report.begin(), report.end());
    EXPECT_THAT(all, testing::UnorderedElementsAreArray(options));
    EXPECT_THAT(offered({"pcap", "-"}, "zelfwtrace"), Not(Contains("--hex")));
    EXPECT_THAT(offered({"explain", "--"}, "zelfwtrace"),
                testing::UnorderedElementsAre("--utc", "--run", "--json", "--help", "--version"));
    EXPECT_THAT(offered({"show", "-"}, "zelfwtrace"), Not(Contains("--output")));
}

TEST_F(Completion, OffersZelfwtraceKindsAndFiles) {
    add_file("trace.log");
    EXPECT_THAT(offered({"-k", "s"}, "zelfwtrace"), ElementsAre("sent", "status"));
    EXPECT_THAT(offered({"--kind", "sent,d"}, "zelfwtrace"), ElementsAre("sent,data"));
    EXPECT_THAT(offered({"pcap", "-o", "tr"}, "zelfwtrace"), ElementsAre("trace.log"));
    EXPECT_THAT(offered({"summary", "tr"}, "zelfwtrace"), ElementsAre("trace.log"));
    EXPECT_THAT(offered({"tr"}, "zelfwtrace"), ElementsAre("trace.log"));
    EXPECT_THAT(offered({"report", "--tills", "tr"}, "zelfwtrace"), ElementsAre("trace.log"));
    EXPECT_THAT(offered({"su"}, "zelfwtrace"), ElementsAre("summary"));
    EXPECT_THAT(offered({"--from", "t"}, "zelfwtrace"), IsEmpty());
}
