// Times as people write them.
#ifndef RECORDER_TIMEWORDS_H
#define RECORDER_TIMEWORDS_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// Microseconds since the epoch, local time: "03:12", "03:12:10" (the last time that it was so), "-2h",
// "-90s", "now", "today", "yesterday", "yesterday 22:00", "2026-03-01", "2026-03-01 22:00[:10]",
// "2026-03-01T22:00:00Z". now is in microseconds, too. Nothing for anything else.
std::optional<std::uint64_t> ParseTimeWords(std::string_view text, std::uint64_t now);

struct TimeSpan {
    std::uint64_t since = 0;
    std::uint64_t until = 0;
};

// The span between two such times; until is now when empty, and a time of day behind since. Throws Failure
// naming the one that is wrong.
TimeSpan ParseTimeSpan(const std::string &since, const std::string &until, std::uint64_t now);

// "2026-03-01 22:00:10", local time.
std::string ShortTime(std::uint64_t microseconds);

// "3 min", "2 h 5 min", "4 d 3 h".
std::string ShortAge(std::uint64_t microseconds);

#endif
