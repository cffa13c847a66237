#include "common/pattern.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

using zelf::Match;
using zelf::Pattern;

TEST(Pattern, MatchesTheWholeTextOrFindsAPlaceInIt) {
    const Pattern digits("[0-9]+");
    EXPECT_TRUE(digits.match("123"));
    EXPECT_FALSE(digits.match("a123"));
    const auto found = digits.find("a123b45");
    ASSERT_TRUE(found);
    EXPECT_EQ((*found)[0], "123");
    EXPECT_FALSE(digits.find("abc"));
}

TEST(Pattern, GivesWhatEachGroupTook) {
    const Pattern pattern("(a)?(b*)(c)");
    const auto match = pattern.match("c");
    ASSERT_TRUE(match);
    EXPECT_FALSE(match->has(1));
    EXPECT_EQ((*match)[1], "");
    EXPECT_TRUE(match->has(2));
    EXPECT_EQ((*match)[2], "");
    EXPECT_EQ((*match)[3], "c");
    EXPECT_FALSE(match->has(4));
    EXPECT_EQ((*match)[4], "");
}

TEST(Pattern, FindsAllPlacesEachBehindTheOneBefore) {
    std::vector<std::string> names;
    for (const Match& match : Pattern("([a-z]*)=").find_all("a=1 bc= =")) {
        names.push_back(match[1]);
    }
    EXPECT_THAT(names, testing::ElementsAre("a", "bc", ""));
    // The beginning is that of the text, also for the second place.
    EXPECT_EQ(Pattern("^a").find_all("aaa").size(), 1U);
    EXPECT_EQ(Pattern("x*").find_all("ab").size(), 3U);
}

TEST(Pattern, EndsAtTheTextsEndAndNotInFrontOfItsLastLineEnd) {
    EXPECT_FALSE(Pattern("^a$").find("a\n"));
    EXPECT_FALSE(Pattern("a.").find("a\n"));
}

TEST(Pattern, TakesBytesAsTheyAre) {
    const std::string zero_and_high("\0\xFF", 2);
    const auto match = Pattern("(.)(.)").match(zero_and_high);
    ASSERT_TRUE(match);
    EXPECT_EQ((*match)[1] + (*match)[2], zero_and_high);
}

TEST(Pattern, CostsNoStackForALongTextAndNoTimeForAnUnhappyOne) {
    const std::string letters(1000000, 'A');
    EXPECT_TRUE(Pattern("(.*)").match(letters));
    EXPECT_FALSE(Pattern(R"((\S+) *(.*)B)").match(letters));
    EXPECT_FALSE(Pattern("(A+)+B").find(letters));
}

TEST(Pattern, RefusesWhatIsNone) {
    EXPECT_THROW(Pattern("("), std::invalid_argument);
}
