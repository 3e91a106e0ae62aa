// What the daemon says to whoever started it: lines on standard error, which the service manager keeps, and
// the service manager's own notification.
//
// Nothing here ever waits: a line for which standard error has no room at the moment is dropped. What
// concerns observations and events goes to the diagnostic log instead.
#ifndef KELD_STARTER_H
#define KELD_STARTER_H

#include <cstddef>
#include <cstdint>

// One line, behind "keld: "; a newline is added. Any thread.
void KeldTell(const char *format, ...) __attribute__((format(printf, 1, 2)));

// The bytes as they are. Any thread.
void KeldTellBytes(const char *bytes, std::size_t length);

// Opens standard descriptors that are closed on /dev/null. A socket would else get their number, and a
// stray message would be written into it. Main thread, first of all.
void KeldOpenStandardDescriptors();

// ---- Losses -----------------------------------------------------------------------------------------

enum class KeldLoss { Producers, LogLines };

// Tells that howMany more were lost, together with those that were not told of yet: at most one line a
// minute for each kind. Main thread.
void KeldTellLoss(KeldLoss what, std::uint64_t howMany);

// Tells of the lines that the system log has not taken, if there were any. Main thread, now and then.
void KeldTellLostLogLines();

// Tells of the rest, at the exit. Main thread.
void KeldTellLossesLeft();

#endif
