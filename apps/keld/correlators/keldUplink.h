// Uplink tracking: what the network correlator remembers of physical NICs, and what it posts of them.
//
// Everything here runs on the Net agent's thread and needs no lock.
#ifndef KELD_UPLINK_H
#define KELD_UPLINK_H

#include "keldDomain.h"

#include <array>
#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <string>
#include <vector>

// The seven observations that are tracked.
extern const std::array<KeldObservation, 7> keldUplinkObservations;

// Registers the wake-up alarm and makes the wake pipe, once. The pipe's read end, which stays open for
// the process's life: whenever it is readable, ProcessUplinkTimeouts has work. -1 when all alarms are
// taken. Panics when there can be no pipe.
int KeldUplinkInit();

// Reports every batch and link state whose time has come, and arms the alarm for the next.
void ProcessUplinkTimeouts();

// ---- What is remembered, for the life of the process ----------------------------------------------

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

struct VmnicAlarmInfo {
    std::uint32_t state;     // exactly one bit of VmnicStateType
    std::uint32_t delay;     // seconds
    std::uint64_t timeStamp; // wall-clock seconds when it was scheduled
};

// One port group or DVPort in a batch. The classification count says how bad it is: uplinks left, or up
// again, where 2 stands for several. No decision reads the informational one; the kernel sends it with a
// down, and it is there for whoever looks at a core.
struct PortgroupInfo {
    std::string name;
    std::int32_t informationalCount;
    std::int32_t classificationCount;

    std::string Item() const { return name; }
};
struct DvPortInfo {
    std::string firstPart;
    std::string secondPart;
    std::int32_t informationalCount;
    std::int32_t classificationCount;

    std::string Item() const { return firstPart + "/" + secondPart; }
};

// What was reported lost and not yet restored.
struct LostItem {
    std::string nic;
    std::string item; // a port group's name or a DVPort's label
};

// Tables are keyed by the NIC's name, byte for byte as received.
struct KeldUplinkTables {
    std::map<std::string, std::uint32_t> nicStates; // bits of VmnicStateType
    std::map<std::string, std::list<VmnicAlarmInfo>> pendingTimeouts;

    std::map<std::string, std::vector<PortgroupInfo>> pgDownBatches, pgUpBatches;
    std::map<std::string, std::vector<DvPortInfo>> dvPortDownBatches, dvPortUpBatches;

    // Of all NICs, in the order in which they were lost.
    std::vector<LostItem> lostConnectivityPortGroups, lostRedundancyPortGroups;
    std::vector<LostItem> lostConnectivityDvPorts, lostRedundancyDvPorts;

    // Gathered from batch to batch until no redundancy is lost anywhere.
    std::vector<std::string> restoredRedundancyPortGroups, restoredRedundancyDvPorts;

    std::map<std::string, std::deque<std::uint64_t>> flapHistory; // link-downs, wall-clock seconds

    int wakeAlarm = -1;
    std::uint32_t armedFor = 0; // seconds that the alarm was last armed for
    std::uint64_t armedAt = 0;  // wall-clock seconds when that was
};

// The tables as they are, to look at.
const KeldUplinkTables &KeldUplinkPeek();

#endif
