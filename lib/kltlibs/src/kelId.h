// What an observation ID may be made of.
#ifndef KLTLIBS_SRC_KELID_H
#define KLTLIBS_SRC_KELID_H

#include <stddef.h>

inline bool KelId_Allows(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '_' || c == '-';
}

// How many of the first length characters are allowed.
inline size_t KelId_Span(const char *id, size_t length)
{
    size_t span = 0;
    while (span < length && KelId_Allows(id[span]))
        ++span;
    return span;
}

#endif
