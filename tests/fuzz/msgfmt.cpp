// Message formats and packed arguments: reading what a stranger packed, and packing and rendering what
// the system's own printf would render.
//
// An input is a format up to its first NUL, then the argument area.
#include "fuzz.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <kltlibs/msgfmt.h>
#include <utility>
#include <vector>

namespace {

std::string Render(const char *format, const void *area, std::uint32_t count, const void *end)
{
    char *text = nullptr;
    std::size_t length = 0;
    FUZZ_CHECK(MsgFmt_Asprintf(&text, &length, format, area, count, end) == 0);
    return TakeText(text, length);
}

// ---- An area from outside ------------------------------------------------------------------------------

void ReadArea(const char *format, std::string_view area)
{
    const char *end = area.data() + area.size();
    const auto room = static_cast<std::uint32_t>(area.size() / MSGFMT_ENTRY_BYTES);
    const char *text = nullptr;
    for (const std::uint32_t count : {std::min(room, 1U), room}) {
        for (std::uint32_t index = 0; index < count; ++index) {
            if (MsgFmt_GetSwizzledString(area.data(), count, index, end, &text) != 0 || text == nullptr)
                continue;
            FUZZ_CHECK(text >= area.data() + std::size_t{count} * MSGFMT_ENTRY_BYTES && text < end);
            FUZZ_CHECK(std::memchr(text, '\0', static_cast<std::size_t>(end - text)) != nullptr);
        }
        FUZZ_CHECK(MsgFmt_GetSwizzledString(area.data(), count, count, end, &text) == EINVAL && !text);
    }
    FUZZ_CHECK(MsgFmt_GetSwizzledString(area.data(), room + 1, 0, end, &text) == EINVAL);
    Render(format, area.data(), room, end);
    FUZZ_CHECK(Render(format, area.data(), 0, end) == Render(format, nullptr, 0, nullptr));
}

// ---- An area of one's own ------------------------------------------------------------------------------

constexpr std::size_t kConversionsMax = 12;
constexpr std::size_t kConversionBytesMax = 31; // a longer one is shown as unreadable
using Arguments = std::array<std::uint64_t, kConversionsMax>;

// False for a format that cannot be packed, or that is of no use here.
bool ReadTypes(const char *format, std::vector<MsgFmtType> *types)
{
    const char *start = nullptr;
    MsgFmtType type = MSGFMT_TYPE_INVALID;
    int error = 0;
    while ((error = MsgFmt_NextConversion(&format, &start, &type)) == 0) {
        if (types->size() == kConversionsMax || format - start > std::ptrdiff_t{kConversionBytesMax})
            return false;
        types->push_back(type);
    }
    return error == ENOENT;
}

int Pack(std::vector<char> *area, std::uint32_t *count, const char *format, ...)
{
    std::size_t used = 0;
    va_list args;
    va_start(args, format);
    const int error = MsgFmt_GetArgsWithBuf(format, args, area->data(), area->size(), &used, count);
    va_end(args);
    if (error == 0) area->resize(used);
    return error;
}

std::string Printed(const char *format, ...)
{
    char *text = nullptr;
    va_list args;
    va_start(args, format);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    const int length = vasprintf(&text, format, args);
#pragma GCC diagnostic pop
    va_end(args);
    FUZZ_CHECK(length >= 0);
    return TakeText(text, static_cast<std::size_t>(length));
}

// Every argument is passed in 64 bits, as the calling conventions of 64-bit machines pass a narrower one
// and a pointer, too.
template <std::size_t... kAt>
void PackAndRender(const char *format, std::size_t conversions, const Arguments &args,
                   std::index_sequence<kAt...>)
{
    std::vector<char> area(1 << 16);
    std::uint32_t count = 0;
    FUZZ_CHECK(Pack(&area, &count, format, args[kAt]...) == 0 && count == conversions);
    std::vector<char> tight(area.size());
    FUZZ_CHECK(Pack(&tight, &count, format, args[kAt]...) == 0 && tight.size() == area.size());
    if (!tight.empty()) tight.pop_back();
    FUZZ_CHECK(area.empty() || Pack(&tight, &count, format, args[kAt]...) == ENOSPC);

    const std::string expected = Printed(format, args[kAt]...);
    FUZZ_CHECK(Render(format, area.data(), count, nullptr) == expected);
    MsgFmt_SwizzleArgs(area.data(), count);
    const std::vector<char> moved = std::exchange(area, {});
    FUZZ_CHECK(Render(format, moved.data(), count, moved.data() + moved.size()) == expected);
}

// The area's bytes are the numbers and, up to their NULs, the texts.
void PackOwn(const char *format, std::string_view bytes)
{
    std::vector<MsgFmtType> types;
    if (!ReadTypes(format, &types)) return;
    Arguments args{};
    std::array<std::string, kConversionsMax> texts;
    for (std::size_t index = 0; index < types.size(); ++index) {
        if (types[index] == MSGFMT_TYPE_STRING) {
            texts[index] = TakeUntil(&bytes, '\0');
            args[index] = reinterpret_cast<std::uintptr_t>(texts[index].c_str());
        } else {
            const std::string_view piece = bytes.substr(0, sizeof args[index]);
            std::memcpy(&args[index], piece.data(), piece.size());
            bytes.remove_prefix(piece.size());
        }
    }
    PackAndRender(format, types.size(), args, std::make_index_sequence<kConversionsMax>{});
}

} // namespace

void Fuzz(std::string_view input)
{
    const std::string format = TakeUntil(&input, '\0');
    ReadArea(format.c_str(), input);
    PackOwn(format.c_str(), input);
}
