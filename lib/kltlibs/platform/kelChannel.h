// A channel as its two halves see it: kelLib.cpp opens and closes it, kelLibRead.cpp takes records out of
// it.
#ifndef KLTLIBS_KELCHANNEL_H
#define KLTLIBS_KELCHANNEL_H

#include "kltlibs/kel.h"
#include "kltlibs/uniquefd.h"

#include <cstddef>
#include <memory>
#include <string>
#include <sys/types.h>
#include <sys/un.h>

struct KelLibHandle {
    int context;
    UniqueFd fd;
    std::string path;
    dev_t device = 0; // with inode: which file at path is this one's own
    ino_t inode = 0;
    std::unique_ptr<char[]> kept; // a datagram received but not yet handed out
    std::size_t keptBytes = 0;
    unsigned bells = 0; // bells on their way through the queue
};

// The asynchronous context of a descriptor; null for any other, which can only be a connection. Main
// thread.
KelLibHandle *KelChannel_Async(int fd);

// "async-3", "user".
void KelChannel_Name(int context, char name[KELLIB_NAME_BYTES_MAX]);

sockaddr_un KelChannel_Address(const KelLibHandle &handle);

#endif
