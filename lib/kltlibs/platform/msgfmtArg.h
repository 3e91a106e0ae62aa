// What the readers of packed arguments share.
#ifndef KLTLIBS_SRC_MSGFMTARG_H
#define KLTLIBS_SRC_MSGFMTARG_H

#include "kltlibs/msgfmt.h"

static_assert(sizeof(MsgFmtArg) == MSGFMT_ENTRY_BYTES, "an entry lies in the area as it is");

inline bool MsgFmtArg_IsSigned(const MsgFmtArg &arg)
{
    return arg.type == MSGFMT_TYPE_INT32 || arg.type == MSGFMT_TYPE_INT64;
}

inline bool MsgFmtArg_IsInteger(const MsgFmtArg &arg)
{
    return MsgFmtArg_IsSigned(arg) || arg.type == MSGFMT_TYPE_UINT32 || arg.type == MSGFMT_TYPE_UINT64;
}

// The integer's 64 bits by its own type: sign- or zero-extended from what of the value counts.
inline uint64_t MsgFmtArg_Integer(const MsgFmtArg &arg)
{
    switch (arg.type) {
    case MSGFMT_TYPE_INT32:
        return static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(arg.value)));
    case MSGFMT_TYPE_UINT32:
        return static_cast<uint32_t>(arg.value);
    default:
        return arg.value;
    }
}

// Null with *text the swizzled string (null for a null string), or what is wrong with it, with *text
// null. The area of areaBytes bytes holds at least count entries, arg being one of them.
const char *MsgFmtArg_StringFault(const MsgFmtArg &arg, const void *area, size_t areaBytes, uint32_t count,
                                  const char **text);

#endif
