#include "eventRecord.h"

#include "kltlibs/msgfmt.h"
#include "kltlibs/plingrecord.h"
#include "msgfmtArg.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

namespace {

constexpr std::size_t kHeaderBytes = PLINGRECORD_HEADER_BYTES;

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

// Every length is compared with what is known to be there before it is used.
Fault Decode(std::span<const std::byte> bytes, EventRecord *event)
{
    if (bytes.size() < kHeaderBytes + PLINGRECORD_TRAILER_BYTES)
        return {"too few bytes for an event", bytes.size()};
    const std::byte *record = bytes.data();
    if (PlingRecord_TotalLength(record) != bytes.size())
        return {"total length is not the record's", PLINGRECORD_TOTAL_LENGTH_AT};
    const std::size_t zeroBytes = PLINGRECORD_TOTAL_LENGTH_AT - PLINGRECORD_ZERO_AT;
    if (!IsZero(bytes.subspan(PLINGRECORD_ZERO_AT, zeroBytes))) return {"not zero", PLINGRECORD_ZERO_AT};

    const std::size_t end = bytes.size() - PLINGRECORD_TRAILER_BYTES;
    const std::uint32_t idLength = PlingRecord_TypeIdLength(record);
    if (idLength < 2 || idLength > PLINGRECORD_TYPE_ID_BYTES_MAX || idLength > end - kHeaderBytes)
        return {"ID length out of range", PLINGRECORD_TYPE_ID_LENGTH_AT};
    if (strnlen(PlingRecord_TypeId(record), idLength) != idLength - 1)
        return {"ID not NUL-terminated where its length says", kHeaderBytes};

    const std::size_t areaOffset = kHeaderBytes + idLength;
    const std::span<const std::byte> area = bytes.subspan(areaOffset, end - areaOffset);
    const std::uint32_t count = PlingRecord_ArgumentCount(record);
    if (count > area.size() / MSGFMT_ENTRY_BYTES)
        return {"more arguments than there is room for", PLINGRECORD_ARGUMENT_COUNT_AT};
    event->arguments.resize(count);
    for (std::uint32_t index = 0; index < count; ++index) {
        const Fault fault = DecodeArgument(area, count, index, &event->arguments[index]);
        if (fault.what != nullptr) return {fault.what, areaOffset + fault.at};
    }
    if (!IsZero(bytes.subspan(end))) return {"not zero", end};

    event->timestamp = PlingRecord_Timestamp(record);
    std::memcpy(&event->kernelWord, record + PLINGRECORD_KERNEL_WORD_AT, sizeof event->kernelWord);
    const auto *identity = reinterpret_cast<const char *>(record + PLINGRECORD_IDENTITY_AT);
    event->hostIdentity.assign(identity, strnlen(identity, PLINGRECORD_IDENTITY_BYTES));
    event->typeId = PlingRecord_TypeId(record);
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
    std::vector<MsgFmtArg> entries;
    for (const EventArgument &argument : event.arguments) {
        MsgFmtArg &entry = entries.emplace_back(MsgFmtArg{argument.type, 0, 0});
        if (const auto *text = std::get_if<std::optional<std::string>>(&argument.value)) {
            if (!*text) continue;
            entry.stringLength = static_cast<std::uint32_t>((*text)->size() + 1);
            entry.value = reinterpret_cast<std::uintptr_t>((*text)->c_str());
        } else if (const auto *number = std::get_if<std::int64_t>(&argument.value)) {
            entry.value = static_cast<std::uint64_t>(*number);
        } else {
            entry.value = std::get<std::uint64_t>(argument.value);
        }
    }
    char *text;
    const auto count = static_cast<std::uint32_t>(entries.size());
    if (MsgFmt_Asprintf(&text, nullptr, format.c_str(), entries.data(), count, nullptr) != 0)
        throw std::bad_alloc();
    const std::unique_ptr<char, void (*)(void *)> owner(text, std::free);
    return text;
}
