// Observation records whose arguments are known only at run time.

#include "kelproducer.h"

#include "kltlibs/kelrecord.h"
#include "kltlibs/msgfmt.h"

#include <errno.h>
#include <string.h>

namespace {

// 0 when the conversions of format ask for exactly these types; EINVAL otherwise.
int CheckTypes(const char *format, const KelProducerArg *args, size_t count)
{
    const char *start = nullptr;
    MsgFmtType type = MSGFMT_TYPE_INVALID;
    for (size_t index = 0;; index++) {
        int error = MsgFmt_NextConversion(&format, &start, &type);
        if (error == ENOENT) return index == count ? 0 : EINVAL;
        if (error != 0 || index == count || args[index].type != type) return EINVAL;
    }
}

size_t StringLength(const KelProducerArg &arg)
{
    bool hasText = arg.type == MSGFMT_TYPE_STRING && arg.string != nullptr;
    return hasText ? strlen(arg.string) + 1 : 0;
}

// Packs args at area, which has room for them, in their swizzled form.
void Pack(unsigned char *area, const KelProducerArg *args, size_t count)
{
    size_t stringOffset = count * MSGFMT_ENTRY_BYTES;
    for (size_t index = 0; index < count; index++) {
        size_t length = StringLength(args[index]);
        MsgFmtArg entry{args[index].type, static_cast<uint32_t>(length), 0};
        if (args[index].type != MSGFMT_TYPE_STRING)
            entry.value = args[index].integer;
        else if (length > 0)
            entry.value = stringOffset;
        memcpy(area + index * MSGFMT_ENTRY_BYTES, &entry, sizeof entry);
        if (length > 0) memcpy(area + stringOffset, args[index].string, length);
        stringOffset += length;
    }
}
static_assert(sizeof(MsgFmtArg) == MSGFMT_ENTRY_BYTES, "an entry lies in the area as it is");

void PutWord(unsigned char *record, size_t offset, size_t value)
{
    uint32_t word = static_cast<uint32_t>(value);
    memcpy(record + offset, &word, sizeof word);
}

} // namespace

int KelRecord_BuildFromArgs(void *buffer, size_t size, size_t *length, uint64_t timestamp, const char *id,
                            const char *format, const KelProducerArg *args, size_t count)
{
    if (count > KELRECORD_ARGUMENTS_MAX || CheckTypes(format, args, count) != 0) return EINVAL;

    // The header, the ID and its rules come from the one place that knows them; the format and the
    // arguments go where it put a format of one blank.
    size_t total = 0;
    int error = KelRecord_Build(buffer, size, &total, timestamp, id, " ");
    if (error != 0) return error;

    unsigned char *record = static_cast<unsigned char *>(buffer);
    size_t formatOffset =
        static_cast<size_t>(KelRecord_MessageFormat(record) - static_cast<char *>(buffer));
    size_t areaOffset = formatOffset + strlen(format) + 1;
    total = areaOffset + count * MSGFMT_ENTRY_BYTES;
    for (size_t index = 0; index < count; index++)
        total += StringLength(args[index]);
    if (total > size || total > KELPRODUCER_RECORD_BYTES_MAX) return ENOSPC;

    memcpy(record + formatOffset, format, areaOffset - formatOffset);
    Pack(record + areaOffset, args, count);
    PutWord(record, 12, count);
    PutWord(record, 16, total);
    PutWord(record, 24, areaOffset);
    *length = total;
    return 0;
}
