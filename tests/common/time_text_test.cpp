#include "common/time_text.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

using zelf::parse_time;
using zelf::TimeZone;

namespace {

// 2026-11-20 22:30:15.250 UTC.
constexpr std::int64_t evening = 1'795'213'815'250;
constexpr std::int64_t minute = 60'000;
constexpr std::int64_t hour = 60 * minute;
constexpr std::int64_t midnight = 1'795'132'800'000;

}  // namespace

TEST(TimeText, TimeIsReadWithItsEndLeftOut) {
    EXPECT_EQ(parse_time("2026-11-20", TimeZone::utc), midnight);
    EXPECT_EQ(parse_time("2026-11-20 22", TimeZone::utc), midnight + 22 * hour);
    EXPECT_EQ(parse_time("2026-11-20T22", TimeZone::utc), midnight + 22 * hour);
    EXPECT_EQ(parse_time("2026-11-20 22:30", TimeZone::utc), midnight + 22 * hour + 30 * minute);
    EXPECT_EQ(parse_time("2026-11-20 22:30:15.25", TimeZone::utc), evening);
}

TEST(TimeText, TimeThatWasWrittenForOtherProgramsIsReadBack) {
    EXPECT_EQ(zelf::iso_time_text(evening), "2026-11-20T22:30:15.250Z");
    EXPECT_EQ(parse_time("2026-11-20T22:30:15.250Z", TimeZone::local), evening);
    EXPECT_EQ(parse_time(zelf::time_text(evening, TimeZone::local), TimeZone::local), evening);
}

TEST(TimeText, TimeOfDayIsToday) {
    EXPECT_EQ(parse_time("19:45", TimeZone::utc, evening), midnight + 19 * hour + 45 * minute);
    EXPECT_EQ(parse_time("19:45:30.5", TimeZone::utc, evening),
              midnight + 19 * hour + 45 * minute + 30'500);
    EXPECT_EQ(parse_time("19:45Z", TimeZone::local, evening), midnight + 19 * hour + 45 * minute);
}

TEST(TimeText, WhatIsNoTimeIsRefused) {
    for (const char* text : {"", "19", "9:45", "24:00", "19:60", "19:45:60", "2026-11-20 ",
                             "2026-11-20 24", "2026-11-20Z", "2026-11-20 9", "2026-02-30", "noon",
                             "2026-11-20 22:30:15.1234", "2026-11-20 22:30:15.", "Z", "19:45ZZ"}) {
        EXPECT_FALSE(parse_time(text, TimeZone::utc, evening)) << text;
    }
}
