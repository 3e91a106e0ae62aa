// Alarms in whole seconds, called on the one alarm thread.
//
// An alarm is registered once, for the process's life, and then armed, moved and disarmed by number.
// Every function here may be called from every thread, alarm handlers included.
#ifndef KELD_ALARM_H
#define KELD_ALARM_H

#include <cstdint>
#include <map>
#include <optional>

using KeldAlarmHandler = void (*)();

enum KeldAlarmMode : std::uint32_t { kKeldAlarmOneShot = 0, kKeldAlarmPeriodic = 1 };

// Starts the alarm thread, which is never joined. Main thread, once.
void KeldAlarmStart();

// The alarm's number, 0-15, or -1 when all 16 are taken.
int KeldAlarmRegister(KeldAlarmHandler handler);

// Arms the alarm to fire in so many seconds of the wall clock; 0 disarms it. A clock that is set forward
// makes it fire earlier; one that is set back leaves it its distance. *remaining, which may be null, gets
// the seconds that its previous setting had left. 0, or 1 for a number that was never registered and for
// any other mode.
int KeldAlarmSet(int alarm, std::uint32_t mode, std::uint32_t seconds, std::uint32_t *remaining = nullptr);

// ---- The step that the thread repeats -------------------------------------------------------------

struct KeldAlarmState {
    std::uint32_t mode = kKeldAlarmOneShot;
    std::uint32_t interval = 0; // seconds
    std::uint64_t due = 0;      // wall-clock seconds; 0 is not armed
    KeldAlarmHandler handler = nullptr;
};
using KeldAlarmMap = std::map<int, KeldAlarmState>;

// What the wall clock is compared with, to see that it was set back.
struct KeldAlarmClocks {
    std::int64_t wallAhead = INT64_MIN; // of the monotonic clock, at most so far: microseconds
};

// Moves what is armed back by as many whole seconds as the wall clock was set back against the monotonic
// one since the last call.
void KeldAlarmFollow(KeldAlarmMap &alarms, KeldAlarmClocks &clocks, std::uint64_t wallMicroseconds,
                     std::uint64_t monotonicMicroseconds);

struct KeldAlarmStep {
    KeldAlarmHandler fire = nullptr;        // call this, without the lock, and step again
    std::optional<std::uint64_t> waitUntil; // else wait until then; without: until something changes
};

// Takes the first due alarm out of the map's order, or says how long to wait.
KeldAlarmStep KeldAlarmNextStep(KeldAlarmMap &alarms, std::uint64_t now);

#endif
