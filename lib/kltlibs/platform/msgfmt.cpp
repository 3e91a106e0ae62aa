// Packed message arguments: reading a format, packing, swizzling, rendering.
//
// Linked into plain C programs: libc alone, no exceptions.
#include "kltlibs/msgfmt.h"

#include "msgfmtArg.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "entries lie in memory as they do on the wire");
static_assert(sizeof(long) == sizeof(long long) && sizeof(size_t) == sizeof(long long),
              "l, ll and z conversions take the same 64 bits");

namespace {

// One conversion cannot ask for more than 99999 characters: a text from outside must not make the
// host allocate gigabytes.
constexpr size_t kWidthDigitsMax = 5;

// Skips the digits of a width or precision; null when there are too many.
const char *SkipDigits(const char *at)
{
    const size_t digits = strspn(at, "0123456789");
    return digits <= kWidthDigitsMax ? at + digits : nullptr;
}

enum class Length { Plain, Narrow, Wide };

Length ReadLength(const char **at)
{
    const char letter = **at;
    if (letter == 'h' || letter == 'l') {
        *at += (*at)[1] == letter ? 2 : 1;
        return letter == 'h' ? Length::Narrow : Length::Wide;
    }
    if (letter == 'z') {
        ++*at;
        return Length::Wide;
    }
    return Length::Plain;
}

MsgFmtType TypeOf(char conversion, Length length)
{
    switch (conversion) {
    case 'd':
    case 'i':
        return length == Length::Wide ? MSGFMT_TYPE_INT64 : MSGFMT_TYPE_INT32;
    case 'c':
        return length == Length::Wide ? MSGFMT_TYPE_INVALID : MSGFMT_TYPE_INT32;
    case 'u':
    case 'x':
    case 'X':
    case 'o':
        return length == Length::Wide ? MSGFMT_TYPE_UINT64 : MSGFMT_TYPE_UINT32;
    case 's':
        return length == Length::Plain ? MSGFMT_TYPE_STRING : MSGFMT_TYPE_INVALID;
    default:
        return MSGFMT_TYPE_INVALID;
    }
}

void PutArg(void *area, uint32_t index, const MsgFmtArg &arg)
{
    memcpy(static_cast<char *>(area) + size_t{index} * MSGFMT_ENTRY_BYTES, &arg, sizeof arg);
}

int CountConversions(const char *format, size_t *count)
{
    const char *start;
    MsgFmtType type;
    for (*count = 0;; ++*count) {
        const int error = MsgFmt_NextConversion(&format, &start, &type);
        if (error != 0) return error == ENOENT ? 0 : error;
    }
}

// A growing text; once memory has run out it stays failed.
struct Text {
    char *bytes = nullptr;
    size_t length = 0;
    size_t room = 0; // with the NUL
    bool failed = false;

    bool Reserve(size_t more)
    {
        if (failed || room - length > more) return !failed;
        const size_t wanted = (length + more + 1) * 2;
        char *grown = static_cast<char *>(realloc(bytes, wanted));
        if (grown == nullptr) {
            failed = true;
            return false;
        }
        bytes = grown;
        room = wanted;
        return true;
    }

    void Append(const char *text, size_t count)
    {
        if (!Reserve(count)) return;
        memcpy(bytes + length, text, count);
        length += count;
    }

    void Append(const char *text) { Append(text, strlen(text)); }

    // One conversion and its one value. The conversion comes from a message, so that the compiler
    // cannot check it: MsgFmt_NextConversion has.
    template <typename Value> void Print(const char *conversion, Value value)
    {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        if (!Reserve(32)) return;
        int count = snprintf(bytes + length, room - length, conversion, value);
        if (count > 0 && static_cast<size_t>(count) >= room - length) {
            if (!Reserve(static_cast<size_t>(count))) return;
            count = snprintf(bytes + length, room - length, conversion, value);
        }
#pragma GCC diagnostic pop
        if (count < 0)
            failed = true;
        else
            length += static_cast<size_t>(count);
    }
};

constexpr char kUnreadable[] = "(?)";
constexpr char kNull[] = "(null)";

void RenderString(Text *text, const char *conversion, const char *value)
{
    if (value == nullptr) value = kNull;
    if (strcmp(conversion, "%s") == 0)
        text->Append(value);
    else
        text->Print(conversion, value);
}

void RenderInteger(Text *text, const char *conversion, MsgFmtType type, uint64_t value)
{
    switch (type) {
    case MSGFMT_TYPE_INT32:
        text->Print(conversion, static_cast<int>(value));
        break;
    case MSGFMT_TYPE_UINT32:
        text->Print(conversion, static_cast<unsigned>(value));
        break;
    default:
        text->Print(conversion, value);
        break;
    }
}

struct Area {
    const void *bytes;
    uint32_t count;
    const void *end; // null while the entries hold pointers
};

void RenderArgument(Text *text, const char *start, size_t length, MsgFmtType type, const Area &area,
                    uint32_t index)
{
    char conversion[32];
    if (index >= area.count || length >= sizeof conversion) {
        text->Append(kUnreadable);
        return;
    }
    memcpy(conversion, start, length);
    conversion[length] = '\0';
    MsgFmtArg arg;
    MsgFmt_GetArg(area.bytes, index, &arg);
    if (type == MSGFMT_TYPE_STRING && arg.type == MSGFMT_TYPE_STRING) {
        const char *value = reinterpret_cast<const char *>(static_cast<uintptr_t>(arg.value));
        if (area.end != nullptr &&
            MsgFmt_GetSwizzledString(area.bytes, area.count, index, area.end, &value) != 0)
            text->Append(kUnreadable);
        else
            RenderString(text, conversion, value);
    } else if (type != MSGFMT_TYPE_STRING && MsgFmtArg_IsInteger(arg)) {
        RenderInteger(text, conversion, type, MsgFmtArg_Integer(arg));
    } else {
        text->Append(kUnreadable);
    }
}

// Appends the characters between two conversions, "%%" as "%".
void RenderLiteral(Text *text, const char *from, const char *to)
{
    while (from < to) {
        const void *percent = memchr(from, '%', static_cast<size_t>(to - from));
        const char *stop = percent != nullptr ? static_cast<const char *>(percent) + 1 : to;
        text->Append(from, static_cast<size_t>(stop - from));
        from = percent != nullptr && stop < to && *stop == '%' ? stop + 1 : stop;
    }
}

} // namespace

void MsgFmt_GetArg(const void *area, uint32_t index, MsgFmtArg *arg)
{
    memcpy(arg, static_cast<const char *>(area) + size_t{index} * MSGFMT_ENTRY_BYTES, sizeof *arg);
}

int MsgFmt_NextConversion(const char **format, const char **start, MsgFmtType *type)
{
    const char *at = strchrnul(*format, '%');
    while (at[0] == '%' && at[1] == '%')
        at = strchrnul(at + 2, '%');
    *start = at;
    if (*at == '\0') {
        *format = at;
        return ENOENT;
    }
    ++at;
    at += strspn(at, "#0- +");
    at = SkipDigits(at);
    if (at != nullptr && *at == '.') at = SkipDigits(at + 1);
    if (at == nullptr) return EINVAL;
    const Length length = ReadLength(&at);
    *type = TypeOf(*at, length);
    if (*type == MSGFMT_TYPE_INVALID) return EINVAL;
    *format = at + 1;
    return 0;
}

int MsgFmt_GetArgsWithBuf(const char *format, va_list args, void *buffer, size_t room, size_t *used,
                          uint32_t *count)
{
    size_t conversions;
    const int error = CountConversions(format, &conversions);
    if (error != 0) return error;
    if (conversions > room / MSGFMT_ENTRY_BYTES || conversions > UINT32_MAX) return ENOSPC;

    char *strings = static_cast<char *>(buffer) + conversions * MSGFMT_ENTRY_BYTES;
    const char *end = static_cast<char *>(buffer) + room;
    const char *start;
    MsgFmtType type;
    for (uint32_t index = 0; index < conversions; ++index) {
        MsgFmt_NextConversion(&format, &start, &type);
        MsgFmtArg arg = {type, 0, 0};
        switch (type) {
        case MSGFMT_TYPE_INT32:
            arg.value = static_cast<uint64_t>(int64_t{va_arg(args, int)});
            break;
        case MSGFMT_TYPE_UINT32:
            arg.value = va_arg(args, unsigned);
            break;
        case MSGFMT_TYPE_STRING:
            if (const char *text = va_arg(args, const char *); text != nullptr) {
                const size_t length = strlen(text) + 1;
                if (length > static_cast<size_t>(end - strings) || length > UINT32_MAX) return ENOSPC;
                memcpy(strings, text, length);
                arg.stringLength = static_cast<uint32_t>(length);
                arg.value = reinterpret_cast<uintptr_t>(strings);
                strings += length;
            }
            break;
        default:
            arg.value = va_arg(args, uint64_t);
            break;
        }
        PutArg(buffer, index, arg);
    }
    *used = static_cast<size_t>(strings - static_cast<char *>(buffer));
    *count = static_cast<uint32_t>(conversions);
    return 0;
}

void MsgFmt_SwizzleArgs(void *area, uint32_t count)
{
    for (uint32_t index = 0; index < count; ++index) {
        MsgFmtArg arg;
        MsgFmt_GetArg(area, index, &arg);
        if (arg.type != MSGFMT_TYPE_STRING || arg.value == 0) continue;
        arg.value -= reinterpret_cast<uintptr_t>(area);
        PutArg(area, index, arg);
    }
}

const char *MsgFmtArg_StringFault(const MsgFmtArg &arg, const void *area, size_t areaBytes, uint32_t count,
                                  const char **text)
{
    *text = nullptr;
    if (arg.stringLength == 0) return arg.value == 0 ? nullptr : "string without a length";
    if (arg.value > areaBytes || arg.stringLength > areaBytes - arg.value)
        return "string outside the record";
    if (arg.value < uint64_t{count} * MSGFMT_ENTRY_BYTES) return "string inside the argument array";
    const char *start = static_cast<const char *>(area) + arg.value;
    const void *terminator = memchr(start, '\0', arg.stringLength);
    if (terminator == nullptr) return "string not NUL-terminated";
    if (terminator != start + arg.stringLength - 1) return "NUL inside the string";
    *text = start;
    return nullptr;
}

int MsgFmt_GetSwizzledString(const void *area, uint32_t count, uint32_t index, const void *end,
                             const char **text)
{
    *text = nullptr;
    const char *first = static_cast<const char *>(area);
    const char *last = static_cast<const char *>(end);
    if (index >= count || first > last) return EINVAL;
    const size_t areaBytes = static_cast<size_t>(last - first);
    if (count > areaBytes / MSGFMT_ENTRY_BYTES) return EINVAL;
    MsgFmtArg arg;
    MsgFmt_GetArg(area, index, &arg);
    if (arg.type != MSGFMT_TYPE_STRING) return EINVAL;
    return MsgFmtArg_StringFault(arg, area, areaBytes, count, text) == nullptr ? 0 : EINVAL;
}

int MsgFmt_Asprintf(char **text, size_t *length, const char *format, const void *area, uint32_t count,
                    const void *end)
{
    *text = nullptr;
    Text rendered;
    rendered.Reserve(strlen(format) + 32);
    const Area arguments = {area, count, end};
    uint32_t index = 0;
    for (const char *literal = format; *literal != '\0' && !rendered.failed; literal = format) {
        const char *start;
        MsgFmtType type;
        const int error = MsgFmt_NextConversion(&format, &start, &type);
        RenderLiteral(&rendered, literal, start);
        if (error == 0) {
            RenderArgument(&rendered, start, static_cast<size_t>(format - start), type, arguments, index++);
        } else if (error == EINVAL) {
            // Not a conversion that any argument was packed for ("90% full"): shown as it stands.
            rendered.Append("%");
            format = start + 1;
        }
    }
    if (rendered.failed) {
        free(rendered.bytes);
        return ENOMEM;
    }
    rendered.bytes[rendered.length] = '\0';
    *text = rendered.bytes;
    if (length != nullptr) *length = rendered.length;
    return 0;
}
