#include "kelValidate.h"

#include "kelId.h"
#include "kltlibs/kel.h"
#include "kltlibs/kelrecord.h"
#include "kltlibs/str.h"
#include "msgfmtArg.h"

#include <cstdint>
#include <cstring>

namespace {

constexpr std::uint32_t kOffsetId = KELRECORD_HEADER_BYTES;

struct Fault {
    const char *what = nullptr; // null: none
    int argument = -1;          // -1: not an argument's
};

Fault CheckArguments(const char *area, std::size_t areaBytes, std::uint32_t count)
{
    if (count > areaBytes / MSGFMT_ENTRY_BYTES) return {"argument array outside the record"};
    for (std::uint32_t index = 0; index < count; ++index) {
        MsgFmtArg arg;
        MsgFmt_GetArg(area, index, &arg);
        if (arg.type != MSGFMT_TYPE_STRING) continue;
        const char *text;
        if (const char *what = MsgFmtArg_StringFault(arg, area, areaBytes, count, &text); what != nullptr)
            return {what, static_cast<int>(index)};
    }
    return {};
}

// Every number is compared with what is known to be there before it is used.
Fault CheckRecord(const char *record, std::size_t available)
{
    if (available < KELRECORD_BYTES_MIN) return {"too few bytes for a record"};
    if (std::memcmp(record + KELRECORD_MAGIC_AT, KELRECORD_MAGIC, 4) != 0) return {"wrong magic"};
    const std::uint32_t total = KelRecord_TotalLength(record);
    if (total < KELRECORD_BYTES_MIN) return {"total length too small"};
    if (total > KELLIB_BATCH_BYTES_MAX) return {"total length too large"};
    if (total > available) return {"total length behind the end"};
    const std::uint32_t count = KelRecord_ArgumentCount(record);
    if (count > KELRECORD_ARGUMENTS_MAX) return {"too many arguments"};

    const std::uint32_t idLength = KelRecord_Word(record, KELRECORD_ID_LENGTH_AT);
    if (idLength < 2 || idLength > KELRECORD_ID_CHARS_MAX + 1) return {"ID length out of range"};
    if (idLength > total - kOffsetId) return {"ID outside the record"};
    if (record[kOffsetId + idLength - 1] != '\0') return {"ID not NUL-terminated"};
    if (KelId_Span(record + kOffsetId, idLength - 1) != idLength - 1) return {"ID with a wrong character"};

    const std::uint32_t message = KelRecord_Word(record, KELRECORD_MESSAGE_FORMAT_AT);
    if (message != kOffsetId + idLength) return {"message format not behind the ID"};
    const std::uint32_t area = KelRecord_Word(record, KELRECORD_ARGUMENT_AREA_AT);
    if (area > total) return {"argument area outside the record"};
    if (area <= message) return {"argument area not behind the message format"};
    const void *terminator = std::memchr(record + message, '\0', area - message);
    if (terminator == nullptr) return {"message format not NUL-terminated"};
    if (terminator != record + area - 1) return {"argument area not behind the message format"};
    return CheckArguments(record + area, total - area, count);
}

} // namespace

bool KelValidate_Record(const void *bytes, std::size_t length)
{
    const char *record = static_cast<const char *>(bytes);
    return CheckRecord(record, length).what == nullptr && KelRecord_TotalLength(record) == length;
}

bool KelValidate_Batch(const void *bytes, std::size_t length, KelFaultText *fault)
{
    const char *first = static_cast<const char *>(bytes);
    std::size_t at = 0;
    do {
        const Fault found = CheckRecord(first + at, length - at);
        if (found.what != nullptr) {
            if (found.argument < 0)
                Str_Sprintf(fault->data(), fault->size(), "record at byte %zu: %s", at, found.what);
            else
                Str_Sprintf(fault->data(), fault->size(), "record at byte %zu: argument %d: %s", at,
                            found.argument, found.what);
            return false;
        }
        at += KelRecord_TotalLength(first + at);
    } while (at < length);
    return true;
}
