// Signals, and waiting without missing one.
//
// SIGTERM, SIGINT and SIGPIPE stay blocked in every thread; the main thread opens them only while it
// waits in KeldPoll, so that between testing the exit flag and waiting there is no gap.
#ifndef KELD_SIGNAL_H
#define KELD_SIGNAL_H

#include <poll.h>

// Installs the handlers and blocks the signals in the calling thread and in all that it starts.
// 0 or an errno value. Main thread, before any other thread.
int KeldSignalInit();

// True once SIGTERM or SIGINT was taken. Any thread.
bool KeldExitRequested();

// poll() without a time-out that a signal always ends: the number of ready entries, or -1 with errno
// (EINTR after a signal, also when entries are ready). Main thread.
int KeldPoll(pollfd *fds, nfds_t count);

// The daemon is leaving: nothing may wait for a receiver any more. Set by the exit sequence, for good.
void KeldSetStopping();
bool KeldStopping();

// ---- A look-out -------------------------------------------------------------------------------------

// Somebody who has to know when all threads wait, and for what. Each call comes on the thread that it is
// about, which takes no signal and cannot be cancelled meanwhile; errno need not be kept.
class KeldLookOut {
public:
    virtual ~KeldLookOut() = default;
    virtual void AgentBegins() = 0;                          // before it registers
    virtual void AgentEnds() = 0;                            // by itself: not of one that is cancelled
    virtual void Waits(const pollfd *fds, nfds_t count) = 0; // is about to; the entries go with the call
    virtual void Left() = 0;                                 // waits no longer
};

// Null in the daemon as it is shipped. The look-out stays the caller's and must outlive every thread; set
// it before KeldMain.
void KeldSetLookOut(KeldLookOut *lookOut);
KeldLookOut *KeldGetLookOut();

#endif
