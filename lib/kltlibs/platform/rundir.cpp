#include "kltlibs/rundir.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

int KltRunDir_Path(const char *name, char *path, size_t size)
{
    const char *directory = getenv("KALTOR_RUN_DIR");
    if (directory == nullptr) directory = "/var/run/kaltor";
    if (directory[0] != '/' || strlen(directory) > KLT_RUN_DIR_BYTES_MAX) return EINVAL;
    const int length = snprintf(path, size, "%s%s%s", directory, name[0] == '\0' ? "" : "/", name);
    return length >= 0 && static_cast<size_t>(length) < size ? 0 : ENAMETOOLONG;
}
