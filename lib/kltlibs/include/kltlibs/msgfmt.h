// Packed message arguments.
//
// An area is an array of 16-byte entries, one an argument, then the strings. It may start at any
// address. An entry, little-endian: bytes 0-3 type code, 4-7 string length with its NUL (0 for
// integers and a null string), 8-15 the value: an integer extended to 64 bits, or where the string
// is: a pointer while packed in memory, the offset from the area's first byte once swizzled (0 for a
// null string in both).
//
// Callable from every thread; needs nothing but libc. Results are 0 or an errno value.
#ifndef KLTLIBS_MSGFMT_H
#define KLTLIBS_MSGFMT_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { MSGFMT_ENTRY_BYTES = 16 };

typedef enum MsgFmtType {
    MSGFMT_TYPE_INVALID = 0,
    MSGFMT_TYPE_INT32 = 1,
    MSGFMT_TYPE_INT64 = 2,
    MSGFMT_TYPE_UINT32 = 3,
    MSGFMT_TYPE_UINT64 = 4,
    MSGFMT_TYPE_STRING = 6, // 5, and 7 and above, are reserved
} MsgFmtType;

// One entry, as it lies in an area; read it from there with MsgFmt_GetArg.
typedef struct MsgFmtArg {
    uint32_t type;         // MsgFmtType, or a reserved code
    uint32_t stringLength; // bytes with the NUL
    uint64_t value;        // of types 1 and 3 only the low 32 bits count
} MsgFmtArg;

// The entry at index; the caller knows that the area has as many.
void MsgFmt_GetArg(const void *area, uint32_t index, MsgFmtArg *arg);

// Finds the next conversion of a printf-style format, from *format on.
//
// 0 with *type its argument type, *start its "%" and *format behind it, a "%%" being passed over;
// ENOENT at the end of the format; EINVAL for one that cannot be packed (%p %f %n, a "*", a format
// that ends inside a conversion).
int MsgFmt_NextConversion(const char **format, const char **start, MsgFmtType *type);

// Packs args, as format describes them, into the first bytes of buffer; strings are copied in.
//
// 0 with *used bytes and *count arguments; EINVAL for a format that cannot be packed; ENOSPC when
// room bytes are too few. A null string is packed as such.
int MsgFmt_GetArgsWithBuf(const char *format, va_list args, void *buffer, size_t room, size_t *used,
                          uint32_t *count);

// Turns the string pointers of a packed area into offsets, so that it can be moved and sent.
void MsgFmt_SwizzleArgs(void *area, uint32_t count);

// 0 with *text the string argument at index of a swizzled area that ends at end (null for a null
// string). EINVAL when it is no string, not NUL-terminated where its length says, holds a NUL before
// that, or does not lie wholly inside the area behind the entries.
int MsgFmt_GetSwizzledString(const void *area, uint32_t count, uint32_t index, const void *end,
                             const char **text);

// Renders format with packed arguments into *text, NUL-terminated, the caller's to free with free().
//
// end is null for an area as packed (pointers) and where the area ends for a swizzled one. A null
// string shows as "(null)". A conversion whose argument is missing, malformed or of the other kind
// (text against number) shows as "(?)": a record's author can get them wrong. ENOMEM with *text null.
int MsgFmt_Asprintf(char **text, size_t *length, const char *format, const void *area, uint32_t count,
                    const void *end);

#ifdef __cplusplus
}
#endif
#endif
