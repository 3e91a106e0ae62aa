#include "keldUplinkTimeout.h"

#include "keldAlarm.h"
#include "keldLog.h"
#include "keldUplink.h"
#include "keldUtil.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <unistd.h>

namespace {

struct VmnicAlarmInfo {
    VmnicStateType state;
    std::uint32_t delay;     // seconds
    std::uint64_t timeStamp; // wall-clock seconds when it was scheduled
    KeldOrigin origin;       // of a link state or watchdog timeout; what a batch holds has its own
};

// By the NIC's name; those of one NIC in the order in which they were scheduled.
auto &pendingTimeouts = *new std::multimap<std::string, VmnicAlarmInfo>;

int wakePipe[2] = {-1, -1}; // fixed before the alarm is first armed
int wakeAlarm = -1;         // likewise
std::uint32_t armedFor = 0; // seconds that the alarm was last armed for
std::uint64_t armedAt = 0;  // wall-clock seconds when that was

void ArmAlarm(std::uint32_t seconds, std::uint64_t now)
{
    // 0 would disarm: after a step of the clock no record would ever come due again.
    armedFor = std::max(seconds, std::uint32_t{1});
    armedAt = now;
    (void)KeldAlarmSet(wakeAlarm, kKeldAlarmOneShot, armedFor);
}

} // namespace

std::uint64_t ScheduleUplinkTimeout(std::uint32_t delay, const std::string &nic, VmnicStateType state)
{
    const std::uint64_t now = KeldNowSeconds();
    // KEPT: the candidate counts from when the alarm was armed, in 32 unsigned bits, but the alarm is armed
    // with it from now. A timeout can so come late, by as long as the alarm had been running, but is never
    // lost: one pass handles all that is due. An exact remainder would move events to other seconds.
    const auto candidate = static_cast<std::uint32_t>(delay - armedAt + now);
    if (pendingTimeouts.empty())
        ArmAlarm(delay, now);
    else if (candidate < armedFor)
        ArmAlarm(candidate, now);
    pendingTimeouts.insert({nic, {state, delay, now, KeldPresent()}});
    return now + delay;
}

std::optional<std::uint64_t> UplinkTimeoutDue(const std::string &nic, VmnicStateType state)
{
    const auto [first, last] = pendingTimeouts.equal_range(nic);
    const auto found =
        std::find_if(first, last, [&](const auto &entry) { return entry.second.state == state; });
    if (found == last) return std::nullopt;
    return found->second.timeStamp + found->second.delay;
}

void HandleUplinkTimeouts(void (*handle)(const std::string &nic, VmnicStateType state, KeldOrigin origin))
{
    const std::uint64_t now = KeldNowSeconds();
    std::optional<std::uint32_t> remaining;
    for (auto it = pendingTimeouts.begin(); it != pendingTimeouts.end();) {
        const auto &[nic, record] = *it;
        // Unsigned: what was scheduled before the clock was set back is due at once.
        if (record.delay <= now - record.timeStamp) {
            handle(nic, record.state, record.origin);
            it = pendingTimeouts.erase(it);
        } else {
            const auto left = static_cast<std::uint32_t>(record.timeStamp + record.delay - now);
            remaining = std::min(remaining.value_or(left), left);
            ++it;
        }
    }
    if (remaining) ArmAlarm(*remaining, now);
}

int KeldUplinkInit()
{
    // On the alarm thread. What is written, NUL included, does not matter: only that the pipe is readable.
    wakeAlarm = KeldAlarmRegister([] { (void)!write(wakePipe[1], "foo", sizeof "foo"); });
    if (wakeAlarm == -1) return -1;
    if (pipe2(wakePipe, O_CLOEXEC) != 0)
        Panic("Failed to initialize pipes for this thread: %s\n", std::strerror(errno));
    return wakePipe[0];
}
