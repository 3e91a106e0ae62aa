#include "keldTraceLine.h"

#include "keldLog.h"

#include <kltlibs/ktime.h>
#include <kltlibs/msgfmt.h>

#include <charconv>
#include <cstring>

namespace {

constexpr std::size_t kDigitsMax = 20; // -2^63 and 2^64-1 both take as many

// At least as many characters as the record's line has.
std::size_t RoomFor(const KeldTraced &record)
{
    constexpr std::size_t kAround = std::string_view(".123456789,OUT,,,\n").size() + 2 * kDigitsMax;
    std::size_t room = kAround + std::strlen(record.id);
    for (std::uint32_t index = 0; index < record.argumentCount; ++index) {
        MsgFmtArg argument;
        MsgFmt_GetArg(record.argumentArea, index, &argument);
        room += kDigitsMax + 3; // also for "(null)" with its comma and quotes
        if (argument.type == MSGFMT_TYPE_STRING) room += std::size_t{2} * argument.stringLength;
    }
    return room;
}

// Each puts something into the line and gives the place behind it.

char *Put(char *to, std::string_view text)
{
    std::memcpy(to, text.data(), text.size());
    return to + text.size();
}

template <class Number> char *PutNumber(char *to, Number value)
{
    return std::to_chars(to, to + kDigitsMax, value).ptr;
}

char *PutNow(char *to)
{
    timespec now{};
    (void)KTime_GetRealtime(&now);
    char *point = PutNumber(to, static_cast<std::int64_t>(now.tv_sec));
    to = PutNumber(point, 1'000'000'000 + now.tv_nsec); // always nine digits behind the first
    *point = '.';
    return to;
}

char *PutQuoted(char *to, std::string_view text)
{
    *to++ = '"';
    for (std::size_t quote; (quote = text.find('"')) != text.npos; text.remove_prefix(quote + 1)) {
        to = Put(to, text.substr(0, quote + 1));
        *to++ = '"';
    }
    to = Put(to, text);
    *to++ = '"';
    return to;
}

// Null when it is a text that cannot be read.
char *PutArgument(char *to, const KeldTraced &record, std::uint32_t index)
{
    MsgFmtArg argument;
    MsgFmt_GetArg(record.argumentArea, index, &argument);
    *to++ = ',';
    switch (argument.type) {
    case MSGFMT_TYPE_INT32:
        return PutNumber(to, static_cast<std::int32_t>(argument.value));
    case MSGFMT_TYPE_INT64:
        return PutNumber(to, static_cast<std::int64_t>(argument.value));
    case MSGFMT_TYPE_UINT32:
        return PutNumber(to, static_cast<std::uint32_t>(argument.value));
    case MSGFMT_TYPE_UINT64:
        return PutNumber(to, argument.value);
    case MSGFMT_TYPE_STRING: {
        const char *text = nullptr;
        if (MsgFmt_GetSwizzledString(record.argumentArea, record.argumentCount, index, record.end, &text) !=
            0)
            return nullptr;
        if (text == nullptr) return PutQuoted(to, "(null)");
        return PutQuoted(to, {text, argument.stringLength - std::size_t{1}});
    }
    default:
        return Put(to, "???");
    }
}

// The whole line's end, or null when there is none to show.
char *Render(const KeldTraced &record, char *line)
{
    char *to = PutNow(line);
    to = Put(to, record.direction);
    to = PutNumber(to, record.timestamp);
    *to++ = ',';
    // KEPT: the comma behind the ID and the one before each argument leave an empty field between
    // them; clients count fields.
    to = Put(to, record.id);
    *to++ = ',';
    for (std::uint32_t index = 0; index < record.argumentCount; ++index) {
        to = PutArgument(to, record, index);
        if (to == nullptr) {
            KeldLog("Invalid argument in kel with ID %s", record.id);
            return nullptr;
        }
    }
    *to++ = '\n';
    return to;
}

} // namespace

KeldTraceLine::KeldTraceLine(const KeldTraced &record)
{
    char *line = mUsual;
    if (const std::size_t room = RoomFor(record); room > sizeof mUsual) {
        mLarger = std::make_unique_for_overwrite<char[]>(room);
        line = mLarger.get();
    }
    if (const char *end = Render(record, line); end != nullptr) mText = {line, end};
}
