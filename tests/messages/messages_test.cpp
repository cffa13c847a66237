// Every line that the program can print stands, with all that is fixed in it, among the texts of
// some test, or is named here with the reason why no test can bring it about. The texts are read
// from the sources, so that a new one without a test shows up. That the test which holds it does
// expect it, in the right place, is not looked at.
#include "source_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <string>
#include <utility>
#include <vector>

namespace {

struct Unreachable {
    const char* fixed_part;
    const char* reason;
};

constexpr Unreachable unreachable[] = {
    {"Unknown component type (value=", "the type has two bits, and all four values are known"},
    {"Could not open write handle for '", "the read handle is opened first, on equal conditions"},
    {"ULRC:F:G:SD:VE:c:d:s:famr:p:l:t:n:o:w:?0:1:2:3:4:", "no message: the options for getopt"},
};

/// Shorter lines, as table cells have them, say nothing about where they come from.
constexpr std::ptrdiff_t fewest_telling_letters = 4;

bool is_telling(const std::vector<std::string>& parts) {
    std::ptrdiff_t letters = 0;
    for (const std::string& part : parts) {
        letters += std::count_if(part.begin(), part.end(), [](char c) {
            return std::isalpha(static_cast<unsigned char>(c)) != 0;
        });
    }
    return letters >= fewest_telling_letters;
}

/// All that the tests expect: the literals of their sources, and their files of texts.
std::string tests_texts() {
    const std::filesystem::path own = std::filesystem::path(TEST_DIRECTORY) / "messages";
    std::string all;
    for (const auto& file : files_below(TEST_DIRECTORY, {".cpp", ".h"})) {
        if (file.parent_path() != own) {
            for (const Literal& literal : string_literals(file)) {
                all += literal.text + '\0';
            }
        }
    }
    for (const auto& file : files_below(TEST_DIRECTORY, {".txt", ".run", ".machine"})) {
        all += file_text(file) + '\0';
    }
    return all;
}

/// A line of a text of the program.
struct Message {
    std::string file;
    int line;
    std::vector<std::string> parts;

    bool is_unreachable() const {
        return std::any_of(std::begin(unreachable), std::end(unreachable),
                           [&](const auto& row) { return holds(row.fixed_part); });
    }
    bool holds(const char* text) const {
        return std::any_of(parts.begin(), parts.end(), [text](const std::string& part) {
            return part.find(text) != std::string::npos;
        });
    }
    std::string text() const {
        std::string all = parts.front();
        for (std::size_t i = 1; i < parts.size(); ++i) {
            all += "..." + parts[i];
        }
        return all;
    }
};

std::vector<Message> messages() {
    std::vector<Message> result;
    for (const auto& file : files_below(SOURCE_DIRECTORY, {".cpp", ".h"})) {
        for (const Literal& literal : string_literals(file)) {
            for (auto& parts : fixed_lines(literal.text)) {
                if (is_telling(parts)) {
                    result.push_back({literal.file, literal.line, std::move(parts)});
                }
            }
        }
    }
    return result;
}

}  // namespace

TEST(Messages, AreExpectedLineByLineByATestOrExplained) {
    const std::string tests = tests_texts();
    const std::vector<Message> all = messages();
    ASSERT_GT(all.size(), 300U) << "the sources were not read";
    for (const Message& message : all) {
        EXPECT_TRUE(message.is_unreachable() || holds_line(tests, message.parts))
            << message.file << ":" << message.line << ": no test expects \"" << message.text()
            << "\"";
    }
}

TEST(Messages, ThatAreExplainedAreTheProgramsAndExpectedNowhere) {
    const std::string tests = tests_texts();
    const std::vector<Message> all = messages();
    for (const Unreachable& row : unreachable) {
        EXPECT_TRUE(
            std::any_of(all.begin(), all.end(),
                        [&row](const Message& message) { return message.holds(row.fixed_part); }))
            << "no message holds \"" << row.fixed_part << '"';
        EXPECT_EQ(tests.find(row.fixed_part), std::string::npos)
            << "a test expects \"" << row.fixed_part << "\" (" << row.reason << ")";
    }
}

TEST(Messages, AreCutAtNewlinesAndConversions) {
    EXPECT_THAT(fixed_lines("\nRead %04x:\n  100%% of %-3s\n"),
                testing::ElementsAre(testing::IsEmpty(), testing::ElementsAre("Read ", ":"),
                                     testing::ElementsAre("  100% of "), testing::IsEmpty()));
}

TEST(Messages, AreFoundWithTheirPartsInOrderOnOneLine) {
    const std::vector<std::string> parts = {"Read ", " of ", " bytes"};
    using namespace std::string_literals;
    EXPECT_TRUE(holds_line("Read 3 of 7 bytes", parts));
    EXPECT_TRUE(holds_line("Read \0 of \0 bytes"s, parts));
    EXPECT_TRUE(holds_line("Read on\nRead 3 of 7 bytes", parts));
    EXPECT_FALSE(holds_line("Read 3 of 7", parts));
    EXPECT_FALSE(holds_line("Read 3\n of 7 bytes", parts));
    EXPECT_FALSE(holds_line(" bytes of Read ", parts));
    EXPECT_FALSE(holds_line("Read \0\0\0\0 of \0 bytes"s, parts));
}
