// The shape of a record, for those who build one.
#ifndef KLTLIBS_SRC_KELPRODUCERRECORD_H
#define KLTLIBS_SRC_KELPRODUCERRECORD_H

#include <stddef.h>
#include <stdint.h>

struct KelRecordShape {
    char *record;
    size_t size; // how large it may become
    size_t area; // where its arguments go
};

// Checks the ID and the room for it and the format, and writes both. 0, EINVAL or ENOSPC.
int KelRecord_Start(void *buffer, size_t size, const char *id, const char *format, KelRecordShape *shape);

// Writes the header around count arguments of areaBytes bytes; gives the record's length.
size_t KelRecord_Finish(const KelRecordShape &shape, uint64_t timestamp, size_t count, size_t areaBytes);

#endif
