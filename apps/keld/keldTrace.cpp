#include "keldTrace.h"

int KeldTraceOpen(const char *) { return -1; }
void KeldTraceAccept(int) {}
void KeldTraceIn(const void *) {}
void KeldTraceOut(const void *) {}
