// Kernel information nodes, integer options and the kernel's build signature.
//
// Callable from every thread. A kernel status is 0 (KNX_OK) or one of 0xBAD....
#ifndef KLTLIBS_KIF_H
#define KLTLIBS_KIF_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t KnxReturnStatus;

enum {
    KNX_OK = 0,
    KNX_FAILURE = 0xBAD0001,       // EIO
    KNX_NOT_FOUND = 0xBAD0003,     // ENOENT
    KNX_BAD_PARAM = 0xBAD0007,     // EINVAL: a value out of range, a file that is no number
    KNX_NO_PERMISSION = 0xBAD000F, // EACCES
    KNX_NO_MEMORY = 0xBAD0014,     // ENOMEM
};

typedef enum KifNode {
    KIF_NODE_config_intOptions,           // instance: group, name; value: KifIntOption / one integer
    KIF_NODE_system_systemUuid,           // value: 56 bytes: 16 raw, then the text, zero-padded
    KIF_NODE_system_pageRetire_threshold, // value: unsigned 64-bit
    KIF_NODE_net_pNics_linkFlapping,      // instance: NIC; set only, to the integer 1
} KifNode;

enum { KIF_SYSTEM_UUID_BYTES = 56, KIF_BUILD_DATE_BYTES = 21 };

typedef struct KifIntOption {
    int64_t current;
} KifIntOption;

typedef struct KifParamList KifParamList;

// Null without memory. The list copies what is added.
KifParamList *KIF_ParamListCreate(void);
KnxReturnStatus KIF_ParamListAddString(KifParamList *list, const char *text);
KnxReturnStatus KIF_ParamListAddInt(KifParamList *list, int64_t value);
void KIF_ParamListDestroy(KifParamList *list); // null is allowed

// Reads or sets a node; instance names which one of several and is null for a node that stands alone.
// KIF_Get fills exactly size bytes, which must be the node's.
KnxReturnStatus KIF_Get(KifNode node, const KifParamList *instance, void *value, size_t size);
KnxReturnStatus KIF_Set(KifNode node, const KifParamList *instance, const KifParamList *value);

// 0 when this build belongs to the running kernel. Fills both build dates, NUL-terminated.
int KIF_CheckSig(char kernelBuildDate[KIF_BUILD_DATE_BYTES], char ownBuildDate[KIF_BUILD_DATE_BYTES]);

// The errno value of a kernel status; 0 for KNX_OK, EIO for one that is not known.
int KNX_ReturnStatusToErrno(KnxReturnStatus status);

// Writes the wall-clock time in microseconds to bytes 0-7 of an event record. 0, or -1 with errno.
int KNX_StampEvent(void *record);

#ifdef __cplusplus
}
#endif
#endif
