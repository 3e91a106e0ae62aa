// SCSI devices and the paths to them.
//
// Arrives    what happens to devices and adapters; path states, paths that come and go and PowerOn-Reset
//            unit attentions (keldScsiPath.cpp).
// Remembers  nothing beside the paths.
// Posts      one event for each.
// Time       none beside the paths.

#include "keldDomains.h"

#include "keldDomain.h"
#include "keldScsiPath.h"

namespace {

constexpr KeldArguments kIndexedDevice = Indexed("%p", "*device");
constexpr KeldArguments kDevice = Args("%p", "*device");
constexpr KeldArguments kDeviceLatency = Args("%p %u %u", "*device, from, to");
constexpr KeldArguments kDeviceDatastore = Args("%p %p", "*device, datastore");
constexpr KeldArguments kDevicePlugin = Args("%p %p %x", "*device, plugin, status");
constexpr KeldArguments kPathAdapter = Indexed("%p %p", "*path, adapter");

constexpr KeldRowOptions kNoDeviceName{.failed = {"Failed to get device name: %d\n"}};
constexpr KeldRowOptions kNoParams{.failed = {"Failed to get params for correlation %s: %d\n"}};
constexpr KeldRowOptions kNotCorrelated{.failed = {"Failed to correlate %s: %d\n"}};

consteval KeldRowOptions Ends(const char *typeId, KeldRowOptions options)
{
    options.pairing = {typeId, "device"};
    return options;
}

// Says in the log for which path it lacks the adapter.
void KeldScsiCorrelatorPathToPe(Kel *kel);

// clang-format off
constexpr EventText kPathToPe =
    "@&!*@*@(nox.problem.scsi.scsipath.badpath.unreachpe)Path %s leads to a PE, which adapter %s cannot reach.";

constexpr Translation kRows[] = {
    {"kel.scsi.device.state.on", kIndexedDevice,
     "@&!*@*@(nox.clear.scsi.device.state.on)Device %s has been turned on administratively.",
     Ends("nox.problem.scsi.device.state.off", kNoDeviceName)},
    {"kel.scsi.device.state.off", kIndexedDevice,
     "@&!*@*@(nox.problem.scsi.device.state.off)Device %s has been turned off administratively.", kNoDeviceName},
    {"kel.scsi.device.state.permanentloss", kIndexedDevice,
     "@&!*@*@(nox.problem.scsi.device.state.permanentloss)Device %s has been removed or is permanently inaccessible. Affected datastores can no longer be used.", kNoDeviceName},
    {"kel.scsi.device.state.permanentloss.noopens", kIndexedDevice,
     "@&!*@*@(nox.problem.scsi.device.state.permanentloss.noopens)Permanently inaccessible device %s has no more opens. It is now safe to remove it.", kNoDeviceName},
    {"kel.scsi.device.state.permanentloss.deviceonline", kIndexedDevice,
     "@&!*@*@(nox.problem.scsi.device.state.permanentloss.deviceonline)Permanently inaccessible device %s is back online. Its data consistency is not guaranteed.", kNoDeviceName},
    {"kel.scsi.device.state.permanentloss.pluggedback", kIndexedDevice,
     "@&!*@*@(nox.problem.scsi.device.state.permanentloss.pluggedback)Device %s has been plugged back in after being marked permanently inaccessible. Its data consistency is not guaranteed.", kNoDeviceName},
    {"kel.scsi.device.state.permanentloss.withreservationheld", kIndexedDevice,
     "@&!*@*@(nox.problem.scsi.device.state.permanentloss.withreservationheld)Device %s became permanently inaccessible while this host held a reservation on it.", kNoDeviceName},
    {"kel.scsi.device.thinprov.atquota", kIndexedDevice,
     "@&!*@*@(nox.problem.scsi.device.thinprov.atquota)Space used on thin-provisioned device %s has reached its configured threshold.",
     {.failed = {"Failed to get thin provisioned device name: %d\n"}}},
    {"kel.scsi.scsipath.limitreached", Indexed("%d %p", "pathCount, *path"),
     "@&!*@*@(nox.problem.scsi.scsipath.limitreached)The maximum number of supported paths, %d, has been reached. Path %s could not be added.",
     {.failed = {"Failed to get path limit reached path count: %d\n", "Failed to get path limit reached path name: %d\n"}}},
    {"kel.scsi.device.limitreached", Indexed("%d %p", "deviceCount, *plugin"),
     "@&!*@*@(nox.problem.scsi.device.limitreached)The maximum number of supported devices, %d, has been reached. A device of plugin %s could not be created.",
     {.failed = {"Failed to get device limit reached device count: %d\n", "Failed to get device limit reached plugin name: %d\n"}}},
    {"kel.scsi.device.nmp.satp.option.failed", Indexed("%p %p", "options, *path"),
     "@&!*@*@(nox.problem.scsi.device.nmp.satp.option.failed)SATP options %s could not be applied on path %s.",
     {.failed = {"Failed to get NMP SATP options: %d\n", "Failed to get path name: %d\n"}}},
    {"kel.scsi.scsipath.badpath.unreachpe", kPathAdapter, kPathToPe, {.handler = KeldScsiCorrelatorPathToPe}},
    {"kel.scsi.device.latency.raised", kDeviceLatency,
     "@&!*@*@(nox.problem.scsi.device.latency.raised)I/O latency of device %s has risen from an average of %u microseconds to %u microseconds.", kNoParams},
    {"kel.scsi.device.latency.recovered", kDeviceLatency,
     "@&!*@*@(nox.clear.scsi.device.latency.recovered)I/O latency of device %s has fallen back from %u microseconds to %u microseconds.",
     Ends("nox.problem.scsi.device.latency.raised", kNoParams)},
    {"kel.scsi.device.medium.error", Args("%p %lx", "*device, block"),
     "@&!*@*@(nox.problem.scsi.device.medium.error)Device %s reported an unrecovered medium error at logical block %#lx.", kNoParams},
    {"kel.scsi.device.reservation.conflict", kDevice,
     "@&!*@*@(nox.problem.scsi.device.reservation.conflict)A command to device %s failed because another initiator holds a reservation on it.", kNoParams},
    {"kel.scsi.device.capacity.changed", Args("%p %lx %lx", "*device, oldBlocks, newBlocks"),
     "@&!*@*@(nox.problem.scsi.device.capacity.changed)The capacity of device %s changed from %#lx to %#lx blocks while it was in use.", kNoParams},
    {"kel.scsi.device.writeprotected", kDevice,
     "@&!*@*@(nox.problem.scsi.device.writeprotected)Device %s has become write protected.", kNoParams},
    {"kel.scsi.device.queue.full", Args("%p %u", "*device, depth"),
     "@&!*@*@(nox.problem.scsi.device.queue.full)Device %s keeps reporting a full queue. Its queue depth has been lowered to %u.", kNoParams},
    {"kel.scsi.device.thinprov.exhausted", kDeviceDatastore,
     "@&!*@*@(nox.problem.scsi.device.thinprov.exhausted)Thin-provisioned device %s is out of space. Writes to datastore %s may fail.", kNoParams},
    {"kel.scsi.device.thinprov.reclaimed", kDeviceDatastore,
     "@&!*@*@(nox.clear.scsi.device.thinprov.reclaimed)Thin-provisioned device %s has free space again. Writes to datastore %s can go on.",
     Ends("nox.problem.scsi.device.thinprov.exhausted", kNoParams)},
    {"kel.scsi.device.close.failed", kDevicePlugin,
     "@&!*@*@(nox.problem.scsi.device.close.failed)Device %s of plugin %s could not be closed: status %#x.", kNotCorrelated},
    {"kel.scsi.device.open.failed", kDevicePlugin,
     "@&!*@*@(nox.problem.scsi.device.open.failed)Device %s of plugin %s could not be opened: status %#x.", kNotCorrelated},
    {"kel.scsi.device.ats.unsupported", kDevice,
     "@&!*@*@(nox.problem.scsi.device.ats.unsupported)Device %s does not support ATS. Locks on it fall back to reservations.", kNotCorrelated},
    {"kel.scsi.scsipath.claim.failed", Args("%p %p %x", "*path, plugin, status"),
     "@&!*@*@(nox.problem.scsi.scsipath.claim.failed)Path %s could not be claimed by plugin %s: status %#x.", kNotCorrelated},
    {"kel.scsi.scsipath.badpath.wrongdevice", Args("%p %p %p", "*path, deviceExpected, deviceFound"),
     "@&!*@*@(nox.problem.scsi.scsipath.badpath.wrongdevice)Path %s was expected to lead to device %s but leads to device %s. The path is not used.", kNotCorrelated},
    {"kel.scsi.adapter.reset", Args("%p %u", "*adapter, resets"),
     "@&!*@*@(nox.problem.scsi.adapter.reset)Storage adapter %s was reset %u time(s) in the last hour.", kNotCorrelated},
};
// clang-format on
static_assert(DistinctUnder(kRows, "kel.scsi."), "a row stands twice, or outside its domain");

void KeldScsiCorrelatorPathToPe(Kel *kel)
{
    const char *path = nullptr, *adapter = nullptr;
    const int status = KeldRead<kPathAdapter>(kel, &path, &adapter);
    if (status == 0)
        KeldPost<kPathToPe>(path, adapter);
    else if (path == nullptr)
        KeldLog("Failed to get path name: %d\n", status);
    else
        KeldLog("Failed to get PE-incapable adapter name for path %s : %d\n", path, status);
}

} // namespace

const KeldDomain keldScsiDomain{
    .name = "SCSI",
    .domains = {"scsi"},
    .defaultHandler = KeldCorrelatorLogUnknown,
    .otherwise = "named in the log",
    .translations = KeldTranslations<kRows>,
    .observations = keldScsiPathObservations,
};

void KeldCorrelator_StartScsi() { KeldDomainRun(keldScsiDomain); }
