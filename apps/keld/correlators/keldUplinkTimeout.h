// What waits for its time, a part of uplink tracking: any number of timeouts, NIC by NIC, and one alarm for
// all. The alarm handler, on the alarm thread, only writes to the wake pipe; all else is the Net agent's.
#ifndef KELD_UPLINKTIMEOUT_H
#define KELD_UPLINKTIMEOUT_H

#include "keldFate.h"

#include <cstdint>
#include <optional>
#include <string>

// What waits for its time, of one NIC.
enum VmnicStateType : std::uint32_t {
    PgUplinkDown = 0x01,     // a batch of port groups that lost an uplink
    PgUplinkUp = 0x02,       // a batch of port groups that got one back
    DvPortUplinkDown = 0x04, // the same of DVPorts
    DvPortUplinkUp = 0x08,
    LinkDown = 0x10, // a link state
    LinkUp = 0x20,
    WatchdogTimeout = 0x40, // a watchdog timeout that was not yet found to be a transient failure
};

// Schedules a timeout for the present observation. Gives when it is due, in wall-clock seconds.
std::uint64_t ScheduleUplinkTimeout(std::uint32_t delaySeconds, const std::string &nic,
                                    VmnicStateType state);

// When the NIC's first timeout of this state is due; nothing when none waits.
std::optional<std::uint64_t> UplinkTimeoutDue(const std::string &nic, VmnicStateType state);

// Takes out every timeout whose time has come, hands each to handle with the observation that it was
// scheduled for, and arms the alarm for the next. handle schedules none.
void HandleUplinkTimeouts(void (*handle)(const std::string &nic, VmnicStateType state, KeldOrigin origin));

#endif
