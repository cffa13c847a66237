#include "common/utf8.h"

#include <gtest/gtest.h>

#include <string_view>

namespace {

struct Character {
    std::string_view text;
    std::size_t length;
    char32_t code;
};

}  // namespace

TEST(Utf8, MeasuresAndReadsTheCharacterInFront) {
    for (const Character& character :
         {Character{"a\xC3\xA4", 1, U'a'}, Character{"\xC3\xA4x", 2, U'\u00E4'},
          Character{"\xE2\x82\xAC", 3, U'\u20AC'}, Character{"\xED\x9F\xBF", 3, U'\uD7FF'},
          Character{"\xF0\x9F\x98\x80", 4, U'\U0001F600'},
          Character{"\xF4\x8F\xBF\xBF", 4, U'\U0010FFFF'}}) {
        ASSERT_EQ(zelf::character_length(character.text), character.length) << character.text;
        EXPECT_EQ(zelf::code_point(character.text.substr(0, character.length)), character.code);
    }
}

TEST(Utf8, FindsNoCharacterInWhatIsMalformed) {
    for (const std::string_view text :
         {"", "\x80", "\xC0\x80", "\xC1\xBF", "\xC3", "\xC3(", "\xE0\x9F\xBF", "\xE2\x82",
          "\xED\xA0\x80", "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFF"}) {
        EXPECT_EQ(zelf::character_length(text), 0U) << testing::PrintToString(text);
    }
}
