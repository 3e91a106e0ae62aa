// The event record: what the daemon sends to the management agent, one to a connection.
//
// A 68-byte header, then the event type ID and the argument area, without padding. All of it
// little-endian:
//
//     0-7    time stamp, microseconds since the epoch
//     8-15   the kernel's; zero without one
//     16-53  host identity, a zero-padded text
//     54-55  zero
//     56-59  total length in bytes, header and trailing zeros included
//     60-63  argument count
//     64-67  length of the event type ID with its NUL
//     68-    event type ID, NUL-terminated; then the argument area; then 4 zero bytes
//
// The accessors trust the record: it is the daemon's own, or EventRecord_Decode has checked it.
#ifndef KLTLIBS_PLINGRECORD_H
#define KLTLIBS_PLINGRECORD_H

#include "kltlibs/recordword.h"

#include <stdint.h>

enum {
    PLINGRECORD_KERNEL_WORD_AT = 8,
    PLINGRECORD_IDENTITY_AT = 16,
    PLINGRECORD_IDENTITY_BYTES = 38,
    PLINGRECORD_ZERO_AT = 54,
    PLINGRECORD_TOTAL_LENGTH_AT = 56,
    PLINGRECORD_ARGUMENT_COUNT_AT = 60,
    PLINGRECORD_TYPE_ID_LENGTH_AT = 64,
    PLINGRECORD_HEADER_BYTES = 68,
    PLINGRECORD_TRAILER_BYTES = 4,
    PLINGRECORD_TYPE_ID_BYTES_MAX = 129, // with the NUL
};

static inline uint64_t PlingRecord_Timestamp(const void *record) { return Record_Timestamp(record); }
static inline uint32_t PlingRecord_TotalLength(const void *record)
{
    return Record_Word(record, PLINGRECORD_TOTAL_LENGTH_AT);
}
static inline uint32_t PlingRecord_ArgumentCount(const void *record)
{
    return Record_Word(record, PLINGRECORD_ARGUMENT_COUNT_AT);
}
static inline uint32_t PlingRecord_TypeIdLength(const void *record)
{
    return Record_Word(record, PLINGRECORD_TYPE_ID_LENGTH_AT);
}

static inline const char *PlingRecord_TypeId(const void *record)
{
    return (const char *)record + PLINGRECORD_HEADER_BYTES;
}
static inline const void *PlingRecord_ArgumentArea(const void *record)
{
    return PlingRecord_TypeId(record) + PlingRecord_TypeIdLength(record);
}
static inline const void *PlingRecord_End(const void *record) // behind the trailing zeros
{
    return (const char *)record + PlingRecord_TotalLength(record);
}

#endif
