// Observation records whose arguments are known only at run time.

#include "kelproducer.h"

#include "kelproducerRecord.h"
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
void Pack(char *area, const KelProducerArg *args, size_t count)
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

} // namespace

int KelRecord_BuildFromArgs(void *buffer, size_t size, size_t *length, uint64_t timestamp, const char *id,
                            const char *format, const KelProducerArg *args, size_t count)
{
    if (count > KELRECORD_ARGUMENTS_MAX || CheckTypes(format, args, count) != 0) return EINVAL;

    KelRecordShape shape;
    if (const int error = KelRecord_Start(buffer, size, id, format, &shape); error != 0) return error;
    size_t areaBytes = count * MSGFMT_ENTRY_BYTES;
    for (size_t index = 0; index < count; index++)
        areaBytes += StringLength(args[index]);
    if (areaBytes > shape.size - shape.area) return ENOSPC;
    Pack(shape.record + shape.area, args, count);
    *length = KelRecord_Finish(shape, timestamp, count, areaBytes);
    return 0;
}
