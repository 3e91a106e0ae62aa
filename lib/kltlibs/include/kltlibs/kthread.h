// The name of the calling thread.
#ifndef KLTLIBS_KTHREAD_H
#define KLTLIBS_KTHREAD_H

#ifdef __cplusplus
extern "C" {
#endif

enum { KTHREAD_NAME_BYTES_MAX = 64 };

// Names the calling thread; kept up to 63 characters for KThreadBase_CurName, shown by the kernel cut
// to 15.
void KThreadBase_SetName(const char *name);

// The calling thread's name, valid for the thread's life; the program's name where none was set.
const char *KThreadBase_CurName(void);

#ifdef __cplusplus
}
#endif
#endif
