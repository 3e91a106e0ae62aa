// The raw observation record, as it lies in read buffers and pipes.
//
// A 32-byte header, then the observation ID, the message format and the argument area, without
// padding; records lie back to back at any address. All of it little-endian:
//
//     0-7    time stamp, microseconds since the epoch
//     8-11   magic: K E L 1
//     12-15  argument count, at most 32
//     16-19  total length in bytes, header included
//     20-23  offset of the message format text
//     24-27  offset of the argument area, which ends where the record ends
//     28-31  length of the observation ID with its NUL
//     32-    observation ID, NUL-terminated; then the message format; then the argument area
//
// The accessors trust the record: it has come through KelLib_ReadFromFd or Kel_MakeKel, which check it.
#ifndef KLTLIBS_KELRECORD_H
#define KLTLIBS_KELRECORD_H

#include "kltlibs/recordword.h"

#include <stdint.h>

#define KELRECORD_MAGIC "KEL1"

enum {
    KELRECORD_MAGIC_AT = 8,
    KELRECORD_ARGUMENT_COUNT_AT = 12,
    KELRECORD_TOTAL_LENGTH_AT = 16,
    KELRECORD_MESSAGE_FORMAT_AT = 20,
    KELRECORD_ARGUMENT_AREA_AT = 24,
    KELRECORD_ID_LENGTH_AT = 28,
    KELRECORD_HEADER_BYTES = 32,
    KELRECORD_BYTES_MIN = 35, // the header, a one-letter ID with its NUL, an empty message format
    KELRECORD_ID_CHARS_MAX = 127,
    KELRECORD_ARGUMENTS_MAX = 32,
};

static inline uint32_t KelRecord_Word(const void *record, uint32_t offset)
{
    return Record_Word(record, offset);
}
static inline uint64_t KelRecord_Timestamp(const void *record) { return Record_Timestamp(record); }
static inline uint32_t KelRecord_ArgumentCount(const void *record)
{
    return KelRecord_Word(record, KELRECORD_ARGUMENT_COUNT_AT);
}
static inline uint32_t KelRecord_TotalLength(const void *record)
{
    return KelRecord_Word(record, KELRECORD_TOTAL_LENGTH_AT);
}

static inline const char *KelRecord_ID(const void *record)
{
    return (const char *)record + KELRECORD_HEADER_BYTES;
}
static inline const char *KelRecord_MessageFormat(const void *record)
{
    return (const char *)record + KelRecord_Word(record, KELRECORD_MESSAGE_FORMAT_AT);
}
static inline const void *KelRecord_ArgumentArea(const void *record)
{
    return (const char *)record + KelRecord_Word(record, KELRECORD_ARGUMENT_AREA_AT);
}
static inline const void *KelRecord_End(const void *record)
{
    return (const char *)record + KelRecord_TotalLength(record);
}

#endif
