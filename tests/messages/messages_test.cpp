// Every text that the program can print is expected by some test, or named here with the reason why
// no test can bring it about. The texts are read from the sources, so that a new one without a test
// shows up.
#include "source_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <set>
#include <string>
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

/// Shorter parts, as in table cells, say nothing about where they come from.
constexpr std::size_t shortest_telling_part = 4;

bool is_telling(const std::string& part) {
    const auto letters = std::count_if(part.begin(), part.end(), [](char c) {
        return std::isalpha(static_cast<unsigned char>(c)) != 0;
    });
    return static_cast<std::size_t>(letters) >= shortest_telling_part;
}

bool is_unreachable(const std::string& part) {
    return std::any_of(std::begin(unreachable), std::end(unreachable),
                       [&](const Unreachable& row) { return part == row.fixed_part; });
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

struct Message {
    Literal literal;
    std::string part;
};

/// The longest telling part of each text of the program.
std::vector<Message> messages() {
    std::vector<Message> result;
    for (const auto& file : files_below(SOURCE_DIRECTORY, {".cpp", ".h"})) {
        for (Literal& literal : string_literals(file)) {
            const std::string part = fixed_parts(literal.text).front();
            if (is_telling(part)) {
                result.push_back({std::move(literal), part});
            }
        }
    }
    return result;
}

TEST(Messages, AreExpectedByATestOrExplained) {
    const std::string tests = tests_texts();
    const std::vector<Message> all = messages();
    ASSERT_GT(all.size(), 300U) << "the sources were not read";
    for (const Message& message : all) {
        EXPECT_TRUE(tests.find(message.part) != std::string::npos || is_unreachable(message.part))
            << message.literal.file << ":" << message.literal.line << ": no test expects \""
            << message.part << "\"";
    }
}

TEST(Messages, ThatAreExplainedAreTheProgramsAndExpectedNowhere) {
    const std::string tests = tests_texts();
    std::set<std::string> parts;
    for (const Message& message : messages()) {
        parts.insert(message.part);
    }
    for (const Unreachable& row : unreachable) {
        EXPECT_TRUE(parts.contains(row.fixed_part))
            << "no message holds \"" << row.fixed_part << '"';
        EXPECT_EQ(tests.find(row.fixed_part), std::string::npos)
            << "a test expects \"" << row.fixed_part << "\" (" << row.reason << ")";
    }
}

TEST(Messages, AreCutAtConversionsAndNewlines) {
    EXPECT_THAT(fixed_parts("Read %04x:\n  100%% of %-3s\n"),
                testing::ElementsAre("100% of", "Read", ":", "", ""));
}

}  // namespace
