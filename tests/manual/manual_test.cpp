// The manual pages say of the program's options, codes and texts what the program says itself.
#include "journal/output.h"
#include "journal/zelfwtrace.h"
#include "option_table.h"
#include "page.h"
#include "session/zelflash.h"
#include "settings.h"
#include "support/child_process.h"
#include "support/files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <regex>
#include <set>
#include <string>
#include <vector>

using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Not;
using testing::StartsWith;

namespace {

const Page& updater_page() {
    static const Page page("zelfwupdate.8.scd");
    return page;
}

std::vector<PageEntry> option_entries() {
    std::vector<PageEntry> all;
    for (const char* heading : {"COMMANDS", "FILTERS", "OPTIONS", "TIME-OUTS"}) {
        for (const PageEntry& entry : updater_page().entries(heading)) {
            all.push_back(entry);
        }
    }
    return all;
}

std::string entry_text(const std::vector<PageEntry>& entries, const std::string& term) {
    for (const PageEntry& entry : entries) {
        if (entry.term == term) {
            return entry.text;
        }
    }
    return "";
}

/// The program without its journals, so that nothing in /tmp is touched.
ChildEnd zelfwupdate(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {ZELFWUPDATE, "-l", "0", "-t", "0"});
    return run_command(arguments);
}

/// The texts of the exit codes, as -E tells them.
std::vector<std::string> exit_code_texts() {
    std::vector<std::string> texts;
    for (int code = 0; code < 100; ++code) {
        const std::string number = std::to_string(code);
        const std::string line = zelfwupdate({"-E", number}).output;
        const std::string start = "Exit Code " + number + ":  ";
        if (line.rfind(start, 0) != 0 || line.find("Unrecognized") != std::string::npos) {
            break;
        }
        texts.push_back(line.substr(start.size(), line.size() - start.size() - 1));
    }
    return texts;
}

std::set<std::string> all_matches(const std::string& text, const std::string& pattern) {
    std::set<std::string> found;
    const std::regex regex(pattern);
    for (std::sregex_iterator match(text.begin(), text.end(), regex), end; match != end; ++match) {
        found.insert(match->str(1));
    }
    return found;
}

/// All that a pattern's group finds in the sources below a directory whose names begin so.
std::set<std::string> found_in_sources(const std::string& directory, const std::string& pattern,
                                       const std::string& name_start = "") {
    std::set<std::string> found;
    const auto root = std::filesystem::path(SOURCE_DIRECTORY) / directory;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        const std::string name = entry.path().filename().string();
        const std::string extension = entry.path().extension().string();
        if ((extension == ".cpp" || extension == ".h") && name.rfind(name_start, 0) == 0) {
            found.merge(all_matches(text_of(entry.path()), pattern));
        }
    }
    return found;
}

/// The keys that a reader of TOML takes for known.
std::set<std::string> listed_keys(const std::string& directory, const std::string& name_start) {
    std::set<std::string> keys;
    for (const std::string& list :
         found_in_sources(directory, R"re(std::string_view, [0-9]+> [A-Za-z_]+[k]eys\{([^}]*)\})re",
                          name_start)) {
        keys.merge(all_matches(list, R"re("([a-z_]+)")re"));
    }
    return keys;
}

/// The keys and tables that a page explains: "*name*", "*[data]*".
std::set<std::string> explained_keys(const Page& page) {
    return all_matches(page.source(), R"(\*\[*([a-z_]+)\]*\*)");
}

/// The words that a page quotes.
std::set<std::string> quoted_words(const Page& page) {
    return all_matches(page.source(), R"re("([a-z-]+)")re");
}

struct ToolPage {
    const char* page;
    const char* program;
};
constexpr ToolPage tool_pages[] = {{"zelfwfile.1.scd", ZELFWFILE},
                                   {"zelfwtrace.1.scd", ZELFWTRACE}};

}  // namespace

TEST(Manual, ExplainsEveryOptionOfTheTableAndNoOther) {
    std::map<char, bool> explained;
    const std::regex term(R"(\*-(.)\*( _[a-z]+_)?)");
    for (const PageEntry& entry : option_entries()) {
        std::smatch parts;
        ASSERT_TRUE(std::regex_match(entry.term, parts, term)) << entry.term;
        EXPECT_THAT(entry.text, Not(IsEmpty())) << entry.term;
        EXPECT_TRUE(explained.emplace(parts.str(1).front(), parts[2].matched).second)
            << entry.term << " is explained twice";
    }
    EXPECT_EQ(explained, option_table());
}

TEST(Manual, ShowsEveryCommandInItsSynopsis) {
    const std::string synopsis = updater_page().section_text("SYNOPSIS");
    for (const auto& [letter, takes_argument] : option_table()) {
        if (std::isupper(static_cast<unsigned char>(letter)) != 0) {
            EXPECT_THAT(synopsis, HasSubstr(std::string(" -") + letter));
        }
    }
}

TEST(Manual, ExplainsEveryMiscellaneousSwitchThatTheProgramTakes) {
    std::set<std::string> explained;
    for (const PageEntry& entry : updater_page().entries("OPTIONS", 1)) {
        explained.insert(entry.term);
    }
    std::set<std::string> taken;
    for (int number = 0; number <= 110; ++number) {
        if (zelfwupdate({"-o", std::to_string(number), "-V"}).exit_code == 0) {
            taken.insert("*" + std::to_string(number) + "*");
        }
    }
    EXPECT_EQ(explained, taken);
}

TEST(Manual, ExplainsEveryOutputLevelThatTheProgramTakes) {
    const std::string text = entry_text(option_entries(), "*-n* _level_");
    for (int level = 0; level <= 9; ++level) {
        const std::string number = std::to_string(level);
        const bool is_taken = zelfwupdate({"-n", number, "-V"}).exit_code == 0;
        EXPECT_EQ(text.find(" " + number + ": ") != std::string::npos, is_taken) << level;
    }
}

TEST(Manual, GivesTheDefaultOfEveryTimeOut) {
    const int defaults[] = {default_information_timeout, default_erase_timeout,
                            default_command_timeout, default_checksum_timeout,
                            default_reset_sleep_timeout};
    for (int option = 0; option < 5; ++option) {
        EXPECT_THAT(entry_text(option_entries(), "*-" + std::to_string(option) + "* _ms_"),
                    HasSubstr("Default: " + std::to_string(defaults[option]) + "."));
    }
}

TEST(Manual, GivesEveryExitCodeWithItsText) {
    const std::vector<std::string> texts = exit_code_texts();
    const std::vector<PageEntry> entries = updater_page().entries("EXIT STATUS");
    ASSERT_THAT(texts, Not(IsEmpty()));
    ASSERT_EQ(entries.size(), texts.size());
    for (std::size_t code = 0; code < texts.size(); ++code) {
        EXPECT_EQ(entries[code].term, "*" + std::to_string(code) + "*");
        EXPECT_THAT(entries[code].text, StartsWith(texts[code]));
    }
}

TEST(Manual, GivesTheTextOfEveryResultWithItsNumber) {
    const std::string section = updater_page().section_text("RESULT FILE");
    int code = 0;
    for (const char* text : flash_code_description) {
        const std::string number = std::to_string(code++);
        if (*text != '\0') {
            EXPECT_TRUE(section.find("|  " + number + " :  " + text) != std::string::npos ||
                        section.find(std::string(text) + " (" + number + ")") != std::string::npos)
                << number << ": " << text;
        }
    }
}

TEST(Manual, NamesEveryEnvironmentVariableThatTheProgramReads) {
    std::set<std::string> explained = all_matches(updater_page().source(), R"(\*(ZELF[A-Z_]+)\*)");
    EXPECT_EQ(explained, found_in_sources("src", "\"(ZELF[A-Z]+_[A-Z_]+)\""));
    EXPECT_THAT(explained, Not(IsEmpty()));
}

TEST(Manual, NamesTheDefaultJournals) {
    const std::string files = updater_page().section_text("FILES");
    EXPECT_THAT(files, HasSubstr(default_log_filename));
    EXPECT_THAT(files, HasSubstr(default_trace_filename));
}

TEST(ToolPages, ExplainEveryOptionOfTheHelpAndNoOther) {
    for (const ToolPage& tool : tool_pages) {
        const Page page(tool.page);
        std::set<std::string> explained;
        for (const char* heading : {"OPTIONS", "OUTPUT", "FILTERS", "OTHER OPTIONS"}) {
            for (const PageEntry& entry : page.entries(heading)) {
                explained.merge(all_matches(entry.term, R"(\*(--?[a-z]*)\*)"));
            }
        }
        const std::string help = run_command({tool.program, "--help"}).output;
        std::set<std::string> offered = all_matches(help, R"(
 {2,6}(-[a-z]), -)");
        offered.merge(all_matches(help, R"(
 {2,6}(?:-[a-z], )?(--[a-z]*))"));
        EXPECT_EQ(explained, offered) << tool.page;
        EXPECT_THAT(explained, IsSupersetOf({"-h", "--help", "--version", "--"})) << tool.page;
    }
}

TEST(ToolPages, ExplainEveryExitStatusOfTheHelp) {
    for (const ToolPage& tool : tool_pages) {
        std::set<std::string> statuses;
        for (const PageEntry& entry : Page(tool.page).entries("EXIT STATUS")) {
            statuses.insert(entry.term.substr(1, entry.term.size() - 2));
        }
        const std::string help = run_command({tool.program, "--help"}).output;
        EXPECT_EQ(statuses, all_matches(help, R"(\n  ([0-9])  [a-z])")) << tool.page;
        EXPECT_THAT(statuses, IsSupersetOf({"0", "1", "2"})) << tool.page;
    }
}

TEST(ToolPages, ExplainEveryCommandOfZelfwfile) {
    const std::string help = run_command({ZELFWFILE, "--help"}).output;
    const std::set<std::string> commands = all_matches(help, R"(\n  zelfwfile ([a-z][a-z-]*) )");
    EXPECT_THAT(commands, IsSupersetOf({"make", "check", "from-trace"}));
    for (const std::string& command : commands) {
        EXPECT_THAT(Page("zelfwfile.1.scd").source(), HasSubstr("\n*" + command + "* _"));
    }
}

TEST(ToolPages, ExplainEveryCommandOfZelfwtrace) {
    const std::string help = run_command({ZELFWTRACE, "--help"}).output;
    const std::set<std::string> commands = all_matches(help, R"(\n  zelfwtrace ([a-z]+) )");
    EXPECT_THAT(commands,
                testing::ElementsAre("explain", "pcap", "redact", "report", "show", "summary"));
    for (const std::string& command : commands) {
        EXPECT_THAT(Page("zelfwtrace.1.scd").source(), HasSubstr("\n*" + command + "* _"));
    }
}

TEST(ToolPages, ExplainEveryKindOfRecord) {
    const std::set<std::string> kinds = found_in_sources(
        "tools/zelfwtrace", R"re(\{trace_kind::[a-z_]+, "([a-z]+)"\})re", "record_kind");
    EXPECT_THAT(kinds, IsSupersetOf({"text", "sent"}));
    EXPECT_THAT(quoted_words(Page("zelfwtrace.1.scd")), IsSupersetOf(kinds));
}

TEST(ToolPages, ExplainEveryMemberOfAnExplanationInJson) {
    std::set<std::string> members =
        found_in_sources("tools/zelfwtrace", R"re(json\["([a-z_]+)"\])re", "explain_output");
    members.merge(found_in_sources("tools/zelfwtrace", R"re(\{"([a-z_]+)", )re", "explain_output"));
    EXPECT_THAT(members, IsSupersetOf({"cause", "evidence", "records_taken", "command_line"}));
    EXPECT_THAT(explained_keys(Page("zelfwtrace.1.scd")), IsSupersetOf(members));
}

TEST(ToolPages, ExplainEveryCommandOptionAndExitCodeOfZelfwsim) {
    const Page page("zelfwsim.1.scd");
    const std::string help = run_command({ZELFWSIM, "--help"}).output;
    std::set<std::string> explained;
    for (const char* heading : {"COMMANDS", "OPTIONS OF RUN", "OPTIONS", "EXIT STATUS"}) {
        for (const PageEntry& entry : page.entries(heading)) {
            explained.merge(all_matches(entry.term, R"(^\*([a-z0-9-]+)\*)"));
        }
    }
    std::set<std::string> offered = all_matches(help, R"(\n  zelfwsim (?:\[COMMAND\] )?([a-z-]+))");
    offered.merge(all_matches(help, R"(\n +(--[a-z-]+))"));
    offered.merge(all_matches(help.substr(help.find("Exit codes")), R"(([0-9]+) )"));
    EXPECT_THAT(offered, IsSupersetOf({"check", "serve", "run", "--attach", "--state", "--help",
                                       "0", "2", "125"}));
    EXPECT_EQ(explained, offered);
}

TEST(ToolPages, ExplainEveryOptionOfTheDemonstration) {
    const std::string script = text_of(SOURCE_DIRECTORY "/sim/zelfw-demo");
    std::smatch options;
    ASSERT_TRUE(std::regex_search(script, options, std::regex("getopts :?([a-z:]+) ")));
    std::set<std::string> offered;
    for (const std::string& letter : all_matches(options.str(1), "([a-z])")) {
        offered.insert("-" + letter);
    }
    std::set<std::string> explained;
    for (const PageEntry& entry : Page("zelfw-demo.1.scd").entries("OPTIONS")) {
        explained.merge(all_matches(entry.term, R"(^\*(-[a-z])\*)"));
    }
    EXPECT_EQ(explained, offered);
}

TEST(FirmwarePage, ExplainsEveryKeyAndWordOfADescription) {
    const Page page("zelfw-firmware.5.scd");
    const std::string reader = "firmware_description.cpp";
    const std::set<std::string> keys = found_in_sources(
        "tools", R"re(\.(?:required_)?(?:texts?|integer|table)\("([a-z_]+)")re", reader);
    const std::set<std::string> words =
        found_in_sources("tools", R"re(\n    \{"([a-z-]+)", )re", reader);
    EXPECT_EQ(listed_keys("tools", reader), keys) << "keys that are known, and read";
    EXPECT_THAT(keys, IsSupersetOf({"product", "record_size", "control", "data"}));
    EXPECT_THAT(words, IsSupersetOf({"font", "random", "inline-version"}));
    EXPECT_THAT(explained_keys(page), IsSupersetOf(keys));
    EXPECT_THAT(quoted_words(page), IsSupersetOf(words));
}

TEST(BusPage, ExplainsEveryKeyAndWord) {
    const Page page("zelfw-bus.5.scd");
    std::set<std::string> keys = found_in_sources(
        "sim/model",
        R"re(\.(?:required_)?(?:text|integer|flag|milliseconds|tables?|has)\("([a-z_]+)")re",
        "bus_file");
    keys.merge(found_in_sources("sim/model", R"re(\(table, "([a-z_]+)")re", "bus_file"));
    const std::set<std::string> words =
        found_in_sources("sim/model", R"re(\{"([a-z-]+)", [^ "])re", "bus_file");
    EXPECT_EQ(listed_keys("sim/model", "bus_file"), keys) << "keys that are known, and read";
    EXPECT_THAT(keys, IsSupersetOf({"replug_ms", "vendor", "erase_ms", "driver", "list"}));
    EXPECT_THAT(words, IsSupersetOf({"keyboard", "plain", "gone", "random"}));
    EXPECT_THAT(explained_keys(page), IsSupersetOf(keys));
    EXPECT_THAT(quoted_words(page), IsSupersetOf(words));
}

TEST(BusPage, ExplainsEveryEventAndActionOfAFault) {
    const std::set<std::string> words =
        found_in_sources("sim/model", R"re((?:Event|Action)Name\{[A-Za-z_:]+, "([a-z-]+)")re");
    EXPECT_THAT(words, IsSupersetOf({"open", "unplug", "get-feature", "late"}));
    EXPECT_THAT(quoted_words(Page("zelfw-bus.5.scd")), IsSupersetOf(words));
}

TEST(BusPage, NamesEveryEnvironmentVariableOfTheSimulation) {
    const std::string text = Page("zelfw-bus.5.scd").section_text("ENVIRONMENT");
    const std::set<std::string> variables = found_in_sources("sim", "\"(ZELFWSIM_[A-Z_]+)\"");
    EXPECT_THAT(variables, Not(IsEmpty()));
    for (const std::string& variable : variables) {
        EXPECT_THAT(text, HasSubstr(variable));
    }
}

TEST(Pages, ReferToPagesThatExist) {
    std::set<std::string> names;
    for (const auto& file : page_files()) {
        names.insert(file.stem().string());
    }
    for (const auto& file : page_files()) {
        const std::string source = text_of(file);
        const std::regex reference(R"(\*(zelf[a-z-]+)\*\((\d)\))");
        for (std::sregex_iterator match(source.begin(), source.end(), reference), end; match != end;
             ++match) {
            EXPECT_TRUE(names.count(match->str(1) + "." + match->str(2)) == 1)
                << file << " refers to " << match->str();
        }
    }
}

TEST(Pages, AreFormattedWithoutAWarning) {
    if (!has_program("scdoc") || !has_program("man") || !has_program("groff")) {
        GTEST_SKIP() << "scdoc, man or groff is not installed";
    }
    ASSERT_THAT(page_files(), Not(IsEmpty()));
    for (const auto& file : page_files()) {
        const std::string made =
            testing::TempDir() + "/" + std::to_string(getpid()) + "." + file.stem().string();
        const ChildEnd scdoc =
            run_command({"sh", "-c", "scdoc < \"$0\" > \"$1\"", file.string(), made});
        EXPECT_EQ(scdoc.exit_code, 0) << file << ": " << scdoc.output;
        const ChildEnd man = run_command(
            {"sh", "-c", "LC_ALL=C.UTF-8 man --warnings -l \"$0\" 2>&1 >/dev/null", made});
        EXPECT_EQ(man.exit_code, 0) << file;
        EXPECT_EQ(man.output, "") << file;
        std::filesystem::remove(made);
    }
}
