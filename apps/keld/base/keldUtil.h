// Small utilities that several correlators share.
#ifndef KELD_UTIL_H
#define KELD_UTIL_H

#include <kltlibs/kel.h>

#include <cstdint>
#include <string>

// The datastore component of a path under "/dsfs/volumes/", when a mounted file system goes by it;
// "(invalid)" for any other path and a null one, "(unknown)" when none does. Lets the platform's
// exceptions pass when the mounted file systems cannot be listed. Any thread.
std::string KeldLookupDatastore(const char *path);

// Reads an observation's arguments by a printf-style message text, one destination a conversion; see
// Kel_GetArgs for the destinations. 0; EINVAL for a text with a conversion that is not accepted; or
// the result of Kel_GetArgs. On failure no destination is written. Call it through KeldRead, which
// proves the destinations.
int KeldGetArgsByFormat(const Kel *kel, const char *text, ...);

// Whole seconds of the wall clock, 0 when it cannot be read.
std::uint64_t KeldNowSeconds();

#endif
