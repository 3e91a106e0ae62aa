// What an observation ID may be made of.
#ifndef KLTLIBS_SRC_KELID_H
#define KLTLIBS_SRC_KELID_H

#include <stddef.h>

// Every character of every record is looked up here twice, on its way in and when it becomes a Kel.
struct KelIdAlphabet {
    bool allowed[256] = {};

    constexpr KelIdAlphabet()
    {
        for (const char c : "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-")
            allowed[static_cast<unsigned char>(c)] = c != '\0';
    }
};

inline constexpr KelIdAlphabet kKelIdAlphabet;

// How many of the first length characters are allowed.
inline size_t KelId_Span(const char *id, size_t length)
{
    size_t span = 0;
    while (span < length && kKelIdAlphabet.allowed[static_cast<unsigned char>(id[span])])
        ++span;
    return span;
}

#endif
