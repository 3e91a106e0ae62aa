// The trace service: every observation that comes in and every event that goes out, as one line of
// text, to whoever connects to the trace socket.
#ifndef KELD_TRACE_H
#define KELD_TRACE_H

// Makes the listening socket at path, or at keld-trace.sock in the run directory for a null path;
// whatever lies there is removed first.
//
// The pollable, non-blocking descriptor, which is never closed; or negative with errno (ENAMETOOLONG
// for a path of 108 bytes or more). Main thread, once.
int KeldTraceOpen(const char *path);

// Accepts one connection and starts to serve it on threads of its own, which inherit the caller's
// blocked signals. What cannot be accepted is logged and turned away. Main thread.
void KeldTraceAccept(int listener);

// Renders one line and hands it to the history and to every client; never waits for a client. The
// record may lie at any address and is not kept. Any thread.
void KeldTraceIn(const void *record);       // a valid raw observation record
void KeldTraceOut(const void *plingRecord); // a whole event record

#endif
