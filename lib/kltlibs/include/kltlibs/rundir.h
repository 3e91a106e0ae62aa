// The run directory: where every socket of this host lies.
//
// /var/run/kaltor, or what KALTOR_RUN_DIR names: an absolute path of at most 80 bytes.
#ifndef KLTLIBS_RUNDIR_H
#define KLTLIBS_RUNDIR_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { KLT_RUN_DIR_BYTES_MAX = 80, KLT_RUN_PATH_BYTES = 108 };

// 0 with path filled, NUL-terminated: the run directory, a slash and name (the run directory itself
// for an empty name). EINVAL when KALTOR_RUN_DIR is not absolute or too long; ENAMETOOLONG when size
// bytes are too few. The environment is read at every call: change it before the first thread starts.
int KltRunDir_Path(const char *name, char *path, size_t size);

#ifdef __cplusplus
}
#endif
#endif
