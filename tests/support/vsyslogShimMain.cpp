// What is preloaded into the daemon as it is shipped: the log shim, and a gate before its threads.
//
// KELD_THREAD_GATE names a FIFO at which every thread waits that gives itself a name, as agents do first
// of all, until somebody has the FIFO open for writing. Without one the gate is open.
#include "vsyslogShim.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/prctl.h>

extern "C" int pthread_setname_np(pthread_t, const char *name)
{
    if (const char *gate = std::getenv("KELD_THREAD_GATE"))
        if (const int fd = open(gate, O_RDONLY | O_CLOEXEC); fd >= 0) close(fd);
    return prctl(PR_SET_NAME, name); // who names another thread is nobody here
}
