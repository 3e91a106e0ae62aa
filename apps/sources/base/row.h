// What a source tells: rows, and the values that fill them.
#ifndef SOURCES_ROW_H
#define SOURCES_ROW_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

// One observation that a source may emit. The format has the arguments of the documented observation, in
// its order.
struct Row {
    const char *id;
    const char *format;
    const char *when; // what on the host leads to it
};

using Value = std::variant<std::string, std::int32_t, std::uint32_t, std::uint64_t>;

// Takes what happened, for the daemon. Event loop's thread only.
using Emit = std::function<void(const Row &row, std::vector<Value> values)>;

// What has no row of its own goes out under one of kel.external.*, whose three texts these are.
constexpr const char *kExternalFormat = "%s %s %s";
std::vector<Value> External(const std::string &component, const std::string &message);

// No text that came from outside is longer than this, in bytes, once it is in an observation.
constexpr std::size_t kTextBytesMax = 255;

// The text as it may go into an observation: cut, one line, printable.
std::string Clean(std::string_view text);

// The record, as the producer library builds it: with the present time. Empty for values that do not fit
// the format.
std::string MakeRecord(const Row &row, const std::vector<Value> &values);

#endif
