// Numbers out of a record's header, which may lie at any address.
#ifndef KLTLIBS_RECORDWORD_H
#define KLTLIBS_RECORDWORD_H

#include <stdint.h>
#include <string.h>

static inline uint32_t Record_Word(const void *record, uint32_t offset)
{
    uint32_t word;
    memcpy(&word, (const char *)record + offset, sizeof word);
    return word;
}

// Every record begins with it: microseconds since the epoch.
static inline uint64_t Record_Timestamp(const void *record)
{
    uint64_t microseconds;
    memcpy(&microseconds, record, sizeof microseconds);
    return microseconds;
}

#endif
