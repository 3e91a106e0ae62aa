// The trace service: every observation that comes in and every event that goes out, as lines of text.
#ifndef KELD_TRACE_H
#define KELD_TRACE_H

// The listening descriptor, or negative with errno; path null is the default one.
int KeldTraceOpen(const char *path);
void KeldTraceAccept(int listener);
void KeldTraceIn(const void *record);
void KeldTraceOut(const void *plingRecord);

#endif
