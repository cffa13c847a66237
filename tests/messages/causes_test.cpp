// The table of causes, held against the texts that the program can print, its codes, and the
// manual's section.
#include "zelfwtrace/causes.h"

#include "session/zelflash.h"
#include "source_text.h"
#include "usb/zelflshhid.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

using testing::HasSubstr;
using testing::NotNull;

using Rows = std::vector<CodeCause>;

Rows rows(const CodeCause* first, std::size_t count) {
    return {first, first + count};
}

std::vector<EndingText> texts() {
    return {ending_texts, ending_texts + ending_text_count};
}

std::vector<Cause> all_causes() {
    return {causes, causes + cause_count};
}

/// All lines that the program can print, each as its fixed parts.
std::vector<std::vector<std::string>> program_lines() {
    std::vector<std::vector<std::string>> lines;
    for (const auto& file : files_below(SOURCE_DIRECTORY "/src", {".cpp", ".h"})) {
        for (const Literal& literal : string_literals(file)) {
            for (auto& parts : fixed_lines(literal.text)) {
                lines.push_back(std::move(parts));
            }
        }
    }
    return lines;
}

std::string joined_words(const std::string& text) {
    std::istringstream words(text);
    std::string joined;
    for (std::string word; words >> word;) {
        joined += (joined.empty() ? "" : " ") + word;
    }
    return joined;
}

/// The manual's section as one line, without the marks of its format.
std::string manual_section() {
    const std::string page = file_text(SOURCE_DIRECTORY "/packaging/man/zelfwupdate.8.scd");
    const std::string title = "\n# WHEN SOMETHING FAILS\n";
    const std::size_t begin = page.find(title);
    if (begin == std::string::npos) {
        return "";
    }
    const std::size_t end = page.find("\n# ", begin + title.size());
    std::string section = page.substr(begin + title.size(), end - begin - title.size());
    section.erase(std::remove(section.begin(), section.end(), '\\'), section.end());
    return joined_words(section);
}

/// What the manual says in front of a cause: the texts and codes that it is told by.
std::string told_by(const Cause& cause) {
    std::string told;
    const auto add = [&told](const std::string& more) {
        told += (told.empty() ? "" : ", ") + more;
    };
    for (const EndingText& row : texts()) {
        if (row.cause == std::string(cause.name)) {
            add("\"" + std::string(row.text) + "\"");
        }
    }
    const auto add_codes = [&](const Rows& codes, const std::string& before) {
        for (const CodeCause& row : codes) {
            if (row.cause == std::string(cause.name)) {
                add(before + std::to_string(row.code));
            }
        }
    };
    add_codes(rows(usb_codes, usb_code_count), "USB library ");
    add_codes(rows(exchange_codes, exchange_code_count), "exchange ");
    for (const CodeCause& row : rows(status_bits, status_bit_count)) {
        if (row.cause == std::string(cause.name)) {
            add(row.code == 0x80 ? "status 0x80" : "status 0x40");
        }
    }
    return told.empty() ? std::string(cause.name) : told;
}

TEST(Causes, HaveANameOfTheirOwnWordsAndARemedy) {
    std::set<std::string> names;
    for (const Cause& cause : all_causes()) {
        EXPECT_TRUE(names.insert(cause.name).second) << cause.name;
        EXPECT_GT(std::string(cause.words).size(), 10U) << cause.name;
        EXPECT_GT(std::string(cause.remedy).size(), 10U) << cause.name;
    }
}

TEST(Causes, AreThereForEachTextAndCode) {
    for (const EndingText& row : texts()) {
        EXPECT_THAT(cause_named(row.cause), NotNull()) << row.text;
    }
    for (const Rows& codes :
         {rows(usb_codes, usb_code_count), rows(exchange_codes, exchange_code_count),
          rows(status_bits, status_bit_count)}) {
        for (const CodeCause& row : codes) {
            EXPECT_THAT(cause_named(row.cause), NotNull()) << row.code;
        }
    }
}

TEST(Causes, AreToldByTextsOfTheProgram) {
    const auto lines = program_lines();
    for (const EndingText& row : texts()) {
        // The part behind the colon of this text is put in from a table of reasons.
        const std::string text = std::regex_replace(
            std::string(row.text), std::regex("^(Nothing was sent .*: ).*"), "$1reason");
        const bool is_printed = std::any_of(lines.begin(), lines.end(), [&text](const auto& parts) {
            const bool is_whole =
                !parts.empty() && text.compare(0, parts.front().size(), parts.front()) == 0;
            std::size_t letters = 0;
            for (const std::string& part : parts) {
                letters += part.size();
            }
            return is_whole && letters >= text.size() / 2 && holds_line(text, parts);
        });
        EXPECT_TRUE(is_printed) << "the program does not print \"" << row.text << '"';
    }
}

TEST(Causes, FindEachTextByItsOwnRow) {
    for (const EndingText& row : texts()) {
        const std::string line =
            std::regex_replace(std::string(row.text), std::regex("\\.\\.\\."), "4711");
        const EndingText* const found = find_ending_text(line);
        ASSERT_THAT(found, NotNull()) << line;
        EXPECT_STREQ(found->cause, row.cause) << line;
    }
    EXPECT_EQ(find_ending_text("Device PID:3c35 SN='File corrupted, stopping update'"), nullptr);
}

TEST(Causes, CoverTheCodesOfExchangeAndTransferLayer) {
    for (const int code :
         {exchange_timed_out, exchange_device_closed, query_not_supported, hid_read_failed,
          hid_write_failed, hid_set_feature_failed, hid_get_feature_failed, hid_device_gone}) {
        EXPECT_THAT(cause_of_exchange_code(code), NotNull()) << code;
    }
    for (const int code : {0, -1, -2, -3, -4, -5, -6, -7, -8, -9, -10, -11, -12, -99, -42}) {
        EXPECT_THAT(cause_of_usb_code(code), NotNull()) << code;
    }
}

TEST(Causes, TakeAStatusByItsBits) {
    EXPECT_EQ(cause_of_status(0x01), nullptr);
    EXPECT_EQ(cause_of_status(0x0D), nullptr);
    EXPECT_STREQ(cause_of_status(0x80)->name, "rejected");
    EXPECT_STREQ(cause_of_status(0x41)->name, "operation-error");
    EXPECT_STREQ(cause_of_status(0x55)->name, "garbled-status");
}

TEST(Causes, StandInTheManualWithTheirRemedies) {
    const std::string section = manual_section();
    for (const Cause& cause : all_causes()) {
        EXPECT_THAT(section, HasSubstr(joined_words(told_by(cause) + ": " + cause.words + " " +
                                                    cause.remedy)));
    }
}

}  // namespace
