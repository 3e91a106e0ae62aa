#include "timeWords.h"

#include "failure.h"

#include <cstdlib>
#include <gtest/gtest.h>

TEST(TimeWordsTest, TimesAreReadAsPeopleWriteThem)
{
    setenv("TZ", "UTC", 1);
    const std::uint64_t now = 1772334720'000'000; // 2026-03-01 03:12:00
    const std::pair<const char *, const char *> rows[] = {{"03:12", "2026-03-01 03:12:00"},
                                                          {"03:13", "2026-02-28 03:13:00"},
                                                          {"23:59:59", "2026-02-28 23:59:59"},
                                                          {"-2h", "2026-03-01 01:12:00"},
                                                          {"-90s", "2026-03-01 03:10:30"},
                                                          {"-3d", "2026-02-26 03:12:00"},
                                                          {"now", "2026-03-01 03:12:00"},
                                                          {"today", "2026-03-01 00:00:00"},
                                                          {"yesterday 22:00", "2026-02-28 22:00:00"},
                                                          {"2026-02-01", "2026-02-01 00:00:00"},
                                                          {"2026-02-01 22:00:10", "2026-02-01 22:00:10"},
                                                          {"2026-02-01T22:00:10Z", "2026-02-01 22:00:10"}};
    for (const auto &[words, time] : rows)
        EXPECT_EQ(time, ShortTime(ParseTimeWords(words, now).value_or(0))) << words;
    for (const char *words :
         {"", "24:01", "3 o'clock", "-2x", "--2h", "tomorrow", "yesterday noon", "2026-02-30x"})
        EXPECT_FALSE(ParseTimeWords(words, now)) << words;

    // A time of day ends a night that began before midnight.
    TimeSpan span = ParseTimeSpan("2026-02-20 22:00", "02:00", now);
    EXPECT_EQ("2026-03-01 02:00:00", ShortTime(span.until));
    span = ParseTimeSpan("03:00", "02:00", now);
    EXPECT_EQ("2026-03-02 02:00:00", ShortTime(span.until));
    EXPECT_THROW(ParseTimeSpan("now", "-1h", now), Failure);
}
