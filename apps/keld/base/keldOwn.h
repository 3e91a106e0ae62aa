// Owning types for what the platform hands out in C's way.
#ifndef KELD_OWN_H
#define KELD_OWN_H

#include <kltlibs/kel.h>
#include <kltlibs/kif.h>
#include <kltlibs/uniquefd.h>

#include <cstdlib>
#include <memory>

struct FreeDeleter {
    void operator()(void *memory) const { std::free(memory); }
};
template <class T> using MallocPtr = std::unique_ptr<T, FreeDeleter>;

// A text that a library formatted for the caller to free.
using MessageText = MallocPtr<char>;

struct KelDeleter {
    void operator()(Kel *kel) const { Kel_Free(kel); }
};
using KelPtr = std::unique_ptr<Kel, KelDeleter>;

struct KifParamListDeleter {
    void operator()(KifParamList *list) const { KIF_ParamListDestroy(list); }
};
using KifParamListPtr = std::unique_ptr<KifParamList, KifParamListDeleter>;

#endif
