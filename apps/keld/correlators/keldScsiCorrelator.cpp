// SCSI devices and the paths to them.
//
// Arrives    path states, paths that come and go, PowerOn-Reset unit attentions; what happens to
//            devices and adapters.
// Remembers  for which path and device a problem was posted; how often each path changed its state
//            and was reset lately.
// Posts      connectivity and redundancy lost, degraded, restored; frequent state changes and resets;
//            one event for each of the others.
// Time       counts are forgotten after 60 seconds below ten, and after 600 seconds altogether.
//
// How many paths a device has left, and which datastores are on it, the host is asked each time: an
// observation says only which path it is about.

#include "keldDomains.h"

#include "keldDomain.h"

#include <knxctl/hostFactory.h>

#include <exception>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace {

// ---- Path states and resets -----------------------------------------------------------------------

constexpr KeldArguments kPathState = Indexed("%p %p", "*path, previousState");
constexpr KeldArguments kPath = Indexed("%p", "*path");

// clang-format off
constexpr EventText kConnectivityLost{
    "@&!*@*@(nox.problem.storage.connectivity.lost)Lost connectivity to storage device %s. Path %s is down. Affected datastores: %s.",
    "*device, path, datastores"};
constexpr EventText kRedundancyLost{
    "@&!*@*@(nox.problem.storage.redundancy.lost)Lost path redundancy to storage device %s. Path %s is down. Affected datastores: %s.",
    "*device, path, datastores"};
constexpr EventText kRedundancyDegraded{
    "@&!*@*@(nox.problem.storage.redundancy.degraded)Path redundancy to storage device %s degraded. Path %s is down. Affected datastores: %s.",
    "*device, path, datastores",
    {.on = "device, path", .clearedBy = "nox.clear.storage.redundancy.restored, nox.clear.storage.connectivity.restored"}};
constexpr EventText kConnectivityRestored{
    "@&!*@*@(nox.clear.storage.connectivity.restored)Connectivity to storage device %s (Datastores: %s) restored. Path %s is active again.",
    "*device, datastores, path", {.clears = "nox.problem.storage.connectivity.lost", .on = "device", .remembered = true}};
constexpr EventText kRedundancyRestored{
    "@&!*@*@(nox.clear.storage.redundancy.restored)Path redundancy to storage device %s (Datastores: %s) restored. Path %s is active again.",
    "*device, datastores, path", {.clears = "nox.problem.storage.redundancy.lost, nox.problem.storage.connectivity.lost", .on = "device", .remembered = true}};
constexpr EventText kPathStateChanges{
    "@&!*@*@(nox.problem.storage.connectivity.pathstatechanges)Frequent path state changes are occurring for path %s. This may indicate a storage problem. Affected device: %s. Affected datastores: %s.",
    "*path, device, datastores"};
constexpr EventText kPathPowerOnResets{
    "@&!*@*@(nox.problem.storage.connectivity.pathpor)Frequent PowerOn Reset Unit Attentions are occurring on path %s. This may indicate a storage problem. Affected device: %s. Affected datastores: %s.",
    "*path, device, datastores"};
constexpr EventText kDevicePowerOnResets{
    "@&!*@*@(nox.problem.storage.connectivity.devicepor)Frequent PowerOn Reset Unit Attentions are occurring on device %s. This may indicate a storage problem. Affected datastores: %s.",
    "*device, datastores"};
// clang-format on

constexpr std::uint32_t kFrequent = 10; // changes, or resets, of one path
constexpr std::uint64_t kForgetFewSeconds = 60;
constexpr std::uint64_t kForgetAllSeconds = 600;
static_assert(kForgetFewSeconds < kForgetAllSeconds);

// How many paths a device has left.
enum : std::uint32_t { kUnknown = 0, kNoPath = 1, kSinglePath = 2, kManyPaths = 3 };

constexpr const char *kDatastoresUnknown = "Unknown";

enum class Change { Happened, Added, Removed };

// How often each path was heard of lately.
class FrequencyCounter {
public:
    // Counts one change. True when it makes them frequent: for the tenth alone, so that a path is
    // reported at most once between two resets.
    bool Count(const std::string &path, Change change, std::uint64_t now)
    {
        // KEPT: both stamps start at 0, so that what a fresh daemon counts first is forgotten at once; a
        // repair would report one change earlier than receivers have learnt to expect at a start.
        if (now - mLastReset > kForgetAllSeconds) {
            mCounts.clear();
            mLastReset = now;
        }
        if (change == Change::Removed)
            mCounts.erase(path);
        else if (const auto [entry, isNew] = mCounts.try_emplace(path, 0);
                 !isNew || change == Change::Happened)
            ++entry->second;
        // Behind the count, not before it: nine changes long ago and one now are reported.
        if (now - mLastDecay > kForgetFewSeconds) {
            for (auto &[name, count] : mCounts)
                if (count < kFrequent) count = 0;
            mLastDecay = now;
        }
        const auto entry = mCounts.find(path);
        return entry != mCounts.end() && entry->second == kFrequent;
    }

private:
    std::map<std::string, std::uint32_t> mCounts;
    std::uint64_t mLastReset = 0;
    std::uint64_t mLastDecay = 0;
};

struct State {
    std::set<std::string> problemsPosted; // path and device, one behind the other
    FrequencyCounter pathStateChanges;
    FrequencyCounter powerOnResets;
};
State &TheState()
{
    static State &state = *new State;
    return state;
}

// What the host answers about its storage; nothing when it cannot, or no longer can.
template <class Ask>
auto AskHost(Ask ask) -> std::optional<decltype(ask(std::declval<const NodeAdm::Storage::StorageInfo &>()))>
{
    try {
        return ask(*NodeAdm::HostFactory::GetHost()->GetStorageInfo());
    } catch (const std::exception &) {
        return std::nullopt;
    }
}

std::optional<std::string> DeviceOfPath(const std::string &path)
{
    return AskHost([&](const auto &storage) { return storage.GetDeviceNameOfPath(path); });
}

std::optional<std::uint32_t> PathRedundancy(const std::string &device)
{
    return AskHost([&](const auto &storage) { return storage.GetLun(device)->GetPathRedundancy(); });
}

// In quotes, separated by commas: "\"ds-gold\", \"ds-silver\""; empty when the device has none.
std::string Datastores(const std::string &device)
{
    const auto names = AskHost([&](const NodeAdm::Storage::StorageInfo &storage) {
        std::string list;
        const std::unique_ptr<NodeAdm::Storage::Lun> lun = storage.GetLun(device);
        const auto *disk = dynamic_cast<const NodeAdm::Storage::DiskLun *>(lun.get());
        if (disk == nullptr) return list;
        for (const std::int32_t partition : disk->GetPartitions()) {
            const std::string name =
                storage.GetDatastoreOn(disk->GetName() + ":" + std::to_string(partition));
            if (!name.empty()) list += (list.empty() ? "\"" : ", \"") + name + "\"";
        }
        return list;
    });
    return names.value_or(kDatastoresUnknown);
}

void CountPathStateChange(const char *path, Change change)
{
    if (!TheState().pathStateChanges.Count(path, change, KeldNowSeconds())) return;
    const std::optional<std::string> device = DeviceOfPath(path);
    if (!device) return;
    const std::optional<std::uint32_t> redundancy = PathRedundancy(*device);
    if (!redundancy) return;
    const std::string datastores = *redundancy == kUnknown ? kDatastoresUnknown : Datastores(*device);
    KeldPost<kPathStateChanges>(path, device->c_str(), datastores.c_str());
}

void KeldScsiCorrelatorPathDown(Kel *kel)
{
    const char *path = nullptr, *previousState = nullptr;
    if (KeldRead<kPathState>(kel, &path, &previousState) != 0) return;
    CountPathStateChange(path, Change::Happened);

    const std::string_view previous = previousState;
    if (previous != "on" && previous != "standby") return;
    const std::optional<std::string> device = DeviceOfPath(path);
    if (!device) return;
    const std::uint32_t redundancy = PathRedundancy(*device).value_or(kUnknown);
    if (redundancy == kUnknown) return;
    const std::string datastores = Datastores(*device);
    switch (redundancy) {
    case kNoPath:
        KeldPost<kConnectivityLost>(device->c_str(), path, datastores.c_str());
        break;
    case kSinglePath:
        KeldPost<kRedundancyLost>(device->c_str(), path, datastores.c_str());
        break;
    case kManyPaths:
        KeldPost<kRedundancyDegraded>(device->c_str(), path, datastores.c_str());
        break;
    default:
        break;
    }
    TheState().problemsPosted.insert(path + *device);
}

// Posts a clear only for the very path and device that a problem was posted for.
void KeldScsiCorrelatorPathUp(Kel *kel)
{
    const char *path = nullptr, *previousState = nullptr;
    if (KeldRead<kPathState>(kel, &path, &previousState) != 0) return;
    CountPathStateChange(path, Change::Happened);

    const std::string_view previous = previousState;
    if (previous != "off" && previous != "dead") return;
    const std::optional<std::string> device = DeviceOfPath(path);
    if (!device || TheState().problemsPosted.erase(path + *device) == 0) return;
    const std::uint32_t redundancy = PathRedundancy(*device).value_or(kUnknown);
    if (redundancy == kUnknown) return;
    const std::string datastores = Datastores(*device);
    switch (redundancy) {
    case kNoPath:
        break; // the host does not count the path yet
    case kSinglePath:
        KeldPost<kConnectivityRestored>(device->c_str(), datastores.c_str(), path);
        break;
    case kManyPaths:
        KeldPost<kRedundancyRestored>(device->c_str(), datastores.c_str(), path);
        break;
    default:
        KeldNotReached("apps/keld/keldScsiCorrelator", 1049);
    }
}

template <Change kChange> void KeldScsiCorrelatorPathListChange(Kel *kel)
{
    const char *path = nullptr;
    if (const int status = KeldRead<kPath>(kel, &path); status != 0) {
        KeldLog("Failed to get path add remove path name: %d\n", status);
        return;
    }
    CountPathStateChange(path, kChange);
}

void KeldScsiCorrelatorPowerOnReset(Kel *kel)
{
    const char *path = nullptr;
    if (KeldRead<kPath>(kel, &path) != 0) return;
    if (!TheState().powerOnResets.Count(path, Change::Happened, KeldNowSeconds())) return;

    const std::string device = DeviceOfPath(path).value_or(path); // a device's own name arrives here, too
    const std::optional<std::uint32_t> redundancy = PathRedundancy(device);
    if (!redundancy) return;
    const std::string datastores = *redundancy == kUnknown ? kDatastoresUnknown : Datastores(device);
    if (*path == '\0')
        KeldPost<kDevicePowerOnResets>(device.c_str(), datastores.c_str());
    else
        KeldPost<kPathPowerOnResets>(path, device.c_str(), datastores.c_str());
}

// With the numbers that the counting obeys.
constexpr KeldNote Counted(const char *note)
{
    return {note, KeldLimit{"threshold", kFrequent},
            KeldLimit{"fewForgotten", kForgetFewSeconds, "seconds"},
            KeldLimit{"allForgotten", kForgetAllSeconds, "seconds"}};
}

// clang-format off
constexpr KeldNote kDown = Counted(
    "counted as a state change; posted by the paths that the device has left, when the previous state was on or standby");
constexpr KeldNote kUp = Counted(
    "counted as a state change; posted by the paths that the device has again, when the previous state was off or dead and this path's loss was posted");
constexpr KeldNote kAdded = Counted(
    "begins to count the path's state changes; of a known path it counts as one");
constexpr KeldNote kReset = Counted(
    "counted; counts below {threshold} are forgotten about every {fewForgotten}; posted at a count of {threshold}");

constexpr KeldObservation kObservations[] = {
    {"kel.scsi.scsipath.pathstate.dead",    kPathState, KeldScsiCorrelatorPathDown, kDown,
     {&kConnectivityLost, &kRedundancyLost, &kRedundancyDegraded, &kPathStateChanges}},
    {"kel.scsi.scsipath.pathstate.off",     kPathState, KeldScsiCorrelatorPathDown, kDown,
     {&kConnectivityLost, &kRedundancyLost, &kRedundancyDegraded, &kPathStateChanges}},
    {"kel.scsi.scsipath.pathstate.on",      kPathState, KeldScsiCorrelatorPathUp,   kUp,
     {&kConnectivityRestored, &kRedundancyRestored, &kPathStateChanges}},
    {"kel.scsi.scsipath.pathstate.standby", kPathState, KeldScsiCorrelatorPathUp,   kUp,
     {&kConnectivityRestored, &kRedundancyRestored, &kPathStateChanges}},
    {"kel.scsi.scsipath.add",    kPath, KeldScsiCorrelatorPathListChange<Change::Added>,   kAdded, {&kPathStateChanges}},
    {"kel.scsi.scsipath.remove", kPath, KeldScsiCorrelatorPathListChange<Change::Removed>, "forgets the path's state changes"},
    {"kel.scsi.scsipath.por",    kPath, KeldScsiCorrelatorPowerOnReset,                    kReset, {&kPathPowerOnResets, &kDevicePowerOnResets}},
};
// clang-format on

// ---- One event for one observation ----------------------------------------------------------------

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
static_assert(std::size(kRows) == 27 && DistinctUnder(kRows, "kel.scsi."));
static_assert(std::size(kObservations) == 7);

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
    .observations = kObservations,
};

void KeldCorrelator_StartScsi() { KeldDomainRun(keldScsiDomain); }
