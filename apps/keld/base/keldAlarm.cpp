#include "keldAlarm.h"

#include "keldMutex.h"
#include "keldStatus.h"

#include <kltlibs/kthread.h>
#include <kltlibs/ktime.h>

#include <algorithm>
#include <condition_variable>
#include <pthread.h>

namespace {

constexpr int kAlarmsMax = 16;

struct Alarms {
    KeldMutex keldAlarmMutex;
    std::condition_variable keldAlarmMapUpdated;
    KeldAlarmMap keldAlarmMap GUARDED_BY(keldAlarmMutex);
    KeldAlarmClocks clocks GUARDED_BY(keldAlarmMutex);
    int nextNumber GUARDED_BY(keldAlarmMutex) = 0;
};
Alarms &alarms = *new Alarms; // outlives main, as its thread does

bool gStarted = false; // main thread only

// The wall clock in whole seconds. When it was set back, the alarms have been moved with it.
std::uint64_t Now() REQUIRES(alarms.keldAlarmMutex)
{
    timeval wall{};
    if (KTime_GetTimeOfDay(&wall) != 0) return 0;
    const auto seconds = static_cast<std::uint64_t>(wall.tv_sec);
    KeldAlarmFollow(alarms.keldAlarmMap, alarms.clocks,
                    seconds * 1'000'000 + static_cast<std::uint64_t>(wall.tv_usec),
                    KTime_MonotonicMicroseconds());
    return seconds;
}

void *KeldAlarmThread(void *)
{
    KThreadBase_SetName("KeldAlarm");
    KeldStatusAlarmThreadBegins();
    for (;;) {
        KeldAlarmHandler fire = nullptr;
        {
            KeldLock lock(alarms.keldAlarmMutex);
            const KeldAlarmStep step = KeldAlarmNextStep(alarms.keldAlarmMap, Now());
            fire = step.fire;
            if (fire == nullptr)
                KTime_WaitUntil(alarms.keldAlarmMapUpdated, lock.Waitable(), step.waitUntil);
        }
        if (fire == nullptr) continue;
        KeldStatusStands(KeldStanding::Works);
        fire();
        KeldStatusStands(KeldStanding::Idle); // since now
    }
}

} // namespace

void KeldAlarmStart()
{
    if (gStarted) return;
    gStarted = true;
    pthread_t thread;
    if (pthread_create(&thread, nullptr, KeldAlarmThread, nullptr) == 0) pthread_detach(thread);
}

void KeldAlarmFollow(KeldAlarmMap &map, KeldAlarmClocks &clocks, std::uint64_t wallMicroseconds,
                     std::uint64_t monotonicMicroseconds)
{
    const auto ahead = static_cast<std::int64_t>(wallMicroseconds - monotonicMicroseconds);
    const std::int64_t back = (std::max(clocks.wallAhead, ahead) - ahead) / 1'000'000;
    if (ahead > clocks.wallAhead) clocks.wallAhead = ahead;
    if (back == 0) return;
    clocks.wallAhead -= back * 1'000'000;
    for (auto &[number, alarm] : map)
        if (alarm.due != 0) alarm.due -= std::min(alarm.due - 1, static_cast<std::uint64_t>(back));
}

KeldAlarmStep KeldAlarmNextStep(KeldAlarmMap &map, std::uint64_t now)
{
    KeldAlarmStep step;
    for (auto &[number, alarm] : map) {
        if (alarm.due == 0) continue;
        if (alarm.due <= now) {
            const bool periodic = alarm.mode == kKeldAlarmPeriodic;
            if (!periodic) alarm.interval = 0;
            alarm.due = periodic ? now + alarm.interval : 0;
            return {.fire = alarm.handler, .waitUntil = std::nullopt};
        }
        if (!step.waitUntil || alarm.due < *step.waitUntil) step.waitUntil = alarm.due;
    }
    return step;
}

int KeldAlarmRegister(KeldAlarmHandler handler)
{
    KeldLock lock(alarms.keldAlarmMutex);
    if (alarms.nextNumber == kAlarmsMax) return -1;
    alarms.keldAlarmMap[alarms.nextNumber] = {.handler = handler};
    return alarms.nextNumber++;
}

int KeldAlarmSet(int alarm, std::uint32_t mode, std::uint32_t seconds, std::uint32_t *remaining)
{
    if (mode > kKeldAlarmPeriodic) return 1;
    KeldLock lock(alarms.keldAlarmMutex);
    if (remaining != nullptr) *remaining = 0;
    const auto found = alarms.keldAlarmMap.find(alarm);
    if (found == alarms.keldAlarmMap.end()) return 1;
    KeldAlarmState &state = found->second;
    const std::uint64_t now = Now();
    if (remaining != nullptr && state.due > now) *remaining = static_cast<std::uint32_t>(state.due - now);
    state.mode = mode;
    state.interval = seconds;
    state.due = seconds == 0 ? 0 : now + seconds;
    alarms.keldAlarmMapUpdated.notify_all();
    return 0;
}
