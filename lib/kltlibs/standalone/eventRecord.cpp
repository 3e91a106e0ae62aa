#include "eventRecord.h"

#include "kltlibs/msgfmt.h"
#include "msgfmtArg.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

namespace {

constexpr std::size_t kHeaderBytes = 68, kTrailerBytes = 4;
constexpr std::size_t kOffsetKernelWord = 8, kOffsetIdentity = 16, kOffsetZero = 54, kOffsetTotal = 56,
                      kOffsetCount = 60, kOffsetIdLength = 64;
constexpr std::size_t kIdBytesMax = 129; // with the NUL

template <typename Word> Word Get(std::span<const std::byte> bytes, std::size_t offset)
{
    Word word;
    std::memcpy(&word, bytes.data() + offset, sizeof word);
    return word;
}

const char *Text(std::span<const std::byte> bytes, std::size_t offset)
{
    return reinterpret_cast<const char *>(bytes.data() + offset);
}

bool IsZero(std::span<const std::byte> bytes)
{
    return std::all_of(bytes.begin(), bytes.end(), [](std::byte b) { return b == std::byte{0}; });
}

// A fault is a text and the byte it is about.
struct Fault {
    const char *what = nullptr; // null: none
    std::size_t at = 0;
};

Fault DecodeArgument(std::span<const std::byte> area, std::uint32_t count, std::uint32_t index,
                     EventArgument *argument)
{
    const std::size_t at = std::size_t{index} * MSGFMT_ENTRY_BYTES;
    MsgFmtArg arg;
    MsgFmt_GetArg(area.data(), index, &arg);
    argument->type = arg.type;
    if (arg.type == MSGFMT_TYPE_STRING) {
        const char *text;
        const char *what = MsgFmtArg_StringFault(arg, area.data(), area.size(), count, &text);
        if (what != nullptr) return {what, at};
        argument->value = text != nullptr ? std::optional<std::string>(text) : std::nullopt;
        return {};
    }
    if (!MsgFmtArg_IsInteger(arg)) return {"unknown argument type", at};
    if (arg.stringLength != 0) return {"integer with a string length", at + 4};
    const std::uint64_t value = MsgFmtArg_Integer(arg);
    if (value != arg.value) return {"32-bit integer not extended", at + 8};
    if (MsgFmtArg_IsSigned(arg))
        argument->value = static_cast<std::int64_t>(value);
    else
        argument->value = value;
    return {};
}

Fault Decode(std::span<const std::byte> bytes, EventRecord *event)
{
    if (bytes.size() < kHeaderBytes + kTrailerBytes) return {"too few bytes for an event", bytes.size()};
    if (Get<std::uint32_t>(bytes, kOffsetTotal) != bytes.size())
        return {"total length is not the record's", kOffsetTotal};
    if (Get<std::uint16_t>(bytes, kOffsetZero) != 0) return {"not zero", kOffsetZero};

    const std::size_t end = bytes.size() - kTrailerBytes;
    const std::uint32_t idLength = Get<std::uint32_t>(bytes, kOffsetIdLength);
    if (idLength < 2 || idLength > kIdBytesMax || idLength > end - kHeaderBytes)
        return {"ID length out of range", kOffsetIdLength};
    if (strnlen(Text(bytes, kHeaderBytes), idLength) != idLength - 1)
        return {"ID not NUL-terminated where its length says", kHeaderBytes};

    const std::size_t areaOffset = kHeaderBytes + idLength;
    const std::span<const std::byte> area = bytes.subspan(areaOffset, end - areaOffset);
    const std::uint32_t count = Get<std::uint32_t>(bytes, kOffsetCount);
    if (count > area.size() / MSGFMT_ENTRY_BYTES)
        return {"more arguments than there is room for", kOffsetCount};
    event->arguments.resize(count);
    for (std::uint32_t index = 0; index < count; ++index) {
        const Fault fault = DecodeArgument(area, count, index, &event->arguments[index]);
        if (fault.what != nullptr) return {fault.what, areaOffset + fault.at};
    }
    if (!IsZero(bytes.subspan(end))) return {"not zero", end};

    event->timestamp = Get<std::uint64_t>(bytes, 0);
    event->kernelWord = Get<std::uint64_t>(bytes, kOffsetKernelWord);
    const char *identity = Text(bytes, kOffsetIdentity);
    event->hostIdentity.assign(identity, strnlen(identity, kOffsetZero - kOffsetIdentity));
    event->typeId = Text(bytes, kHeaderBytes);
    return {};
}

} // namespace

std::string EventArgument::ToText() const
{
    if (const auto *number = std::get_if<std::int64_t>(&value)) return std::to_string(*number);
    if (const auto *number = std::get_if<std::uint64_t>(&value)) return std::to_string(*number);
    return std::get<std::optional<std::string>>(value).value_or("(null)");
}

int EventRecord_Decode(std::span<const std::byte> bytes, EventRecord *event, std::string *error)
{
    EventRecord decoded;
    const Fault fault = Decode(bytes, &decoded);
    if (fault.what != nullptr) {
        *error = "byte " + std::to_string(fault.at) + ": " + fault.what;
        return EINVAL;
    }
    *event = std::move(decoded);
    return 0;
}

std::string EventRecord_Render(const EventRecord &event, const std::string &format)
{
    // An area as it is before it is swizzled: the entries alone, pointing at the event's own texts.
    std::vector<std::array<std::byte, MSGFMT_ENTRY_BYTES>> entries(event.arguments.size());
    for (std::size_t index = 0; index < entries.size(); ++index) {
        const EventArgument &argument = event.arguments[index];
        std::uint32_t length = 0;
        std::uint64_t value = 0;
        if (const auto *text = std::get_if<std::optional<std::string>>(&argument.value)) {
            length = *text ? static_cast<std::uint32_t>((*text)->size() + 1) : 0;
            value = *text ? reinterpret_cast<std::uintptr_t>((*text)->c_str()) : 0;
        } else if (const auto *number = std::get_if<std::int64_t>(&argument.value)) {
            value = static_cast<std::uint64_t>(*number);
        } else {
            value = std::get<std::uint64_t>(argument.value);
        }
        std::byte *entry = entries[index].data();
        std::memcpy(entry, &argument.type, sizeof argument.type);
        std::memcpy(entry + 4, &length, sizeof length);
        std::memcpy(entry + 8, &value, sizeof value);
    }
    char *text;
    const auto count = static_cast<std::uint32_t>(entries.size());
    if (MsgFmt_Asprintf(&text, nullptr, format.c_str(), entries.data(), count, nullptr) != 0)
        throw std::bad_alloc();
    const std::unique_ptr<char, void (*)(void *)> owner(text, std::free);
    return text;
}
