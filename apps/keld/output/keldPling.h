// Posting events to the management agent.
#ifndef KELD_PLING_H
#define KELD_PLING_H

enum class KeldEventClass : int { Problem = 0, Audit = 1, Clear = 2 };

// Registers the retry alarm (keldPlingDelivery) and reads the host identity, which stays zero when it
// cannot be read. Main thread, once, before any agent starts.
void KeldPlingInit();

// Posts one event: packs the arguments, logs and traces the record, sends it to the management agent,
// and keeps it for later when that fails.
//
// format is "@&!*@*@(" + event type ID + ")" + a printf-style text. cls alone decides the prefix of
// the type ID that is posted. defer not 0 keeps the event for the first retry without trying to send
// it now: for events about the receiver itself. More than 1000 events in 60 seconds are dropped with a
// log line each. Any thread; blocks while the receiver is slow. Panics on any other class.
void KeldPostEvent(int defer, KeldEventClass cls, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

// Posts a problem whose type ID is "nox.problem." + suffix. Discouraged: kept for its old callers.
void Keld_PostProblem(const char *suffix, const char *format, ...) __attribute__((format(printf, 2, 3)));

#endif
