// Observations: one observation as an object (Kel_*), and the channels that deliver them (KelLib_*).
//
// The daemon reads channels through KelLib_* on its main thread, moves raw records between threads
// as bytes, and hands each to Kel_MakeKel on the thread that will look at it. A Kel belongs to one
// thread at a time; nothing here locks on its behalf.
//
// Results are 0 or a positive status: errno values, and KELLIB_STATUS_TOO_SMALL.
#ifndef KLTLIBS_KEL_H
#define KLTLIBS_KEL_H

#include <stdarg.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct Kel Kel;
typedef struct KelLibHandle KelLibHandle;

enum {
    KELLIB_ASYNC_CONTEXTS = 22, // contexts 0-21
    KELLIB_USER_CONTEXT = 22,
    KELLIB_STATUS_TOO_SMALL = 27,     // what waits does not fit the buffer; nothing was consumed
    KELLIB_BATCH_BYTES_MAX = 0x1FFFF, // no batch and no record is larger
    KELLIB_NAME_BYTES_MAX = 16,       // "async-21", with room and its NUL
};

// ---- One observation ------------------------------------------------------------------------------

// Builds a Kel around a raw record of totalLength bytes, validated to the last argument.
//
// 0 with *kel set: the Kel owns record, which must come from malloc, and Kel_Free frees both.
// EINVAL or ENOMEM with *kel null: record stays the caller's.
int Kel_MakeKel(void *record, uint32_t totalLength, Kel **kel);

// Releases the object and its record; every text borrowed from it ends with it. Null is allowed.
void Kel_Free(Kel *kel);

// 0 with *id the observation ID, borrowed from the record. EINVAL with *id null for a null kel.
int Kel_GetID(const Kel *kel, const char **id);

// True when id is exactly literal. A null id is no ID at all: false.
bool Kel_IsID(const char *id, const char *literal);

// 0 with *microseconds the time stamp, microseconds since the epoch.
int Kel_GetTimestamp(const Kel *kel, uint64_t *microseconds);

// 0 with *text the message format rendered with the arguments, NUL-terminated, the caller's to free
// with free(); *length, which may be null, gets its length without the NUL. ENOMEM otherwise, with
// *text null.
int Kel_GetMsg(const Kel *kel, char **text, size_t *length);

// Reads the arguments from the first on, one for each conversion of format, in one step.
//
// Destinations: %p const char ** (borrowed; a null text is a null pointer), %d %i int32_t *,
// %u %x %X %o uint32_t *, %c char *; with h 16 bits, hh 8 bits, l ll L z 64 bits. Flags, widths and
// the characters between conversions are skipped. options is 0.
//
// 0; EINVAL for a format that cannot be read, for more conversions than arguments, and for a string
// read as an integer or the reverse; ERANGE for an integer that its destination can hold neither
// signed nor unsigned. On failure no destination is written. Fewer conversions than arguments is fine.
int Kel_GetArgs(const Kel *kel, int options, const char *format, ...);
int Kel_GetArgsVA(const Kel *kel, int options, const char *format, va_list destinations);

// One argument by its index from 0; the results of Kel_GetArgs, EINVAL for an index that is not there.
int Kel_GetStringArg(const Kel *kel, int index, const char **text);
int Kel_GetIntArg(const Kel *kel, int index, int32_t *value);

// ---- Channels (main thread only) ------------------------------------------------------------------

// Opens asynchronous context 0-21, or the user-level context 22, in the run directory.
//
// 0 with *handle the caller's, to be ended with KelLib_Close. EBUSY (16) when another daemon serves
// this run directory; EINVAL for a context out of range or an unusable run directory; or the errno
// of the call that failed, with one diagnostic line naming the path.
int KelLib_AsyncContextOpen(int32_t context, KelLibHandle **handle);
int KelLib_UserContextOpen(int32_t context, KelLibHandle **handle);

// 0 with *fd the handle's pollable descriptor, which stays the handle's.
int KelLib_HandleToFd(const KelLibHandle *handle, int *fd);

// 0 with name filled, NUL-terminated: "async-0" ... "async-21", "user".
int KelLib_HandleToName(const KelLibHandle *handle, char name[KELLIB_NAME_BYTES_MAX]);

// Reads whole records from a channel's or a producer connection's descriptor, without blocking.
//
// 0 with *byteCount bytes of whole, valid records in buffer; 0 bytes when nothing valid waits, and at
// a connection's end of stream. KELLIB_STATUS_TOO_SMALL when not even the first datagram fits size:
// nothing was consumed. Otherwise an errno value.
//
// What is not wholly made of valid records is consumed and dropped with a diagnostic line.
int KelLib_ReadFromFd(int fd, void *buffer, uint32_t size, uint32_t *byteCount);

// Whom to tell of everything that is dropped, also where no diagnostic line is written any more: from which
// context, how many bytes, and why. Called while reading; null is nobody.
typedef void (*KelLibDropObserver)(int32_t context, size_t bytes, const char *reason);
void KelLib_SetDropObserver(KelLibDropObserver observer);

// 0 or an errno value; throws away what waits on the channel.
int KelLib_Reset(KelLibHandle *handle);

// 0 with *fd a newly connected producer's descriptor, the caller's to end with
// KelLib_UserContextCloseCnx (or close, when nothing was read from it).
int KelLib_UserContextNewCnx(KelLibHandle *handle, int *fd);

// 0, or negative when the descriptor is no producer connection or could not be closed.
int KelLib_UserContextCloseCnx(int fd);

// 0 or an errno value; the handle is gone either way. Removes the channel's socket.
int KelLib_Close(KelLibHandle *handle);

#ifdef __cplusplus
}
#endif
#endif
