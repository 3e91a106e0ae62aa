// Files and directories, as the channels and the host inventory need them.
#ifndef KLTLIBS_SRC_FILES_H
#define KLTLIBS_SRC_FILES_H

#include "kltlibs/uniquefd.h"

#include <string>

// Makes a directory of mode 0755, and those above it, when missing: 0 or an errno value.
int KltMakeDirectory(const std::string &path);

#endif
