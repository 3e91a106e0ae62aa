// Small text work that several subcommands share.
#ifndef KELADM_TEXT_H
#define KELADM_TEXT_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// True when text is what pattern says: "*" stands for any characters, "?" for one.
bool GlobMatches(std::string_view pattern, std::string_view text);

// One line that a terminal cannot stumble over: control characters become \n, \t, \x1b, \u009b, so do what
// turns the direction of writing and what is not UTF-8.
std::string Printable(std::string_view text);

// Printable, but for newlines.
std::string PrintableLines(std::string_view text);

bool IsUtf8(std::string_view text);

// Printable, between double quotes, those inside marked with a backslash.
std::string Quoted(std::string_view text);

// "2024-05-01 12:00:00.123456" in local time.
std::string LocalTime(std::uint64_t microseconds);

// "2024-05-01T12:00:00.123456Z", for programs.
std::string UtcTime(std::uint64_t microseconds);

// "2024-05-01T12:00:00Z" in seconds since the epoch; nothing for anything else.
std::optional<std::uint64_t> ParseUtcTime(std::string_view text);

// "500ms", "2s", "1.5s", "10m", "1h"; a bare number is seconds. Nothing for anything else, and for
// more than 1000 hours.
std::optional<std::chrono::milliseconds> ParseDuration(std::string_view text);

// "0.5 s", for people.
std::string DurationText(std::chrono::milliseconds duration);

// The bytes as two hexadecimal digits each, eight bytes a group, cut with a note behind bytesMax.
std::string HexText(std::string_view bytes, size_t bytesMax);

// All that is in a file, or that a device gives up to its end. Throws Failure naming it, also for more than
// 16 MiB.
std::string ReadFile(const std::string &file);

#endif
