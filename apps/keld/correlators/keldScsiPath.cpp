// Paths to SCSI devices.
//
// Arrives    path states, paths that come and go, PowerOn-Reset unit attentions.
// Remembers  for which path and device a problem was posted; how often each path changed its state
//            and was reset lately.
// Posts      connectivity and redundancy lost, degraded, restored; frequent state changes and resets.
// Time       counts are forgotten after 60 seconds below ten, and after 600 seconds altogether.
//
// How many paths a device has left, and which datastores are on it, the host is asked each time: an
// observation says only which path it is about.

#include "keldScsiPath.h"

#include <knxctl/hostFactory.h>

#include <exception>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace {

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

// How often each path has changed, or was reset, lately.
class FrequencyCounter {
public:
    explicit FrequencyCounter(const char *what) : mWhat(what) {}

    // Counts one change, and says its fate: how many there are now. True when it makes them frequent: for
    // the tenth alone, so that a path is reported at most once between two resets.
    bool Count(const std::string &path, Change change, const char *previousState, std::uint64_t now)
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
        const std::uint32_t count = entry == mCounts.end() ? 0 : entry->second;
        KeldSay(KeldFate::Counted,
                "%s of %s: %u, posted at %u; below that forgotten after %s, all after %s%s%s", mWhat,
                path.c_str(), count, kFrequent, KeldTimeOfDay(mLastDecay + kForgetFewSeconds).text,
                KeldTimeOfDay(mLastReset + kForgetAllSeconds).text,
                *previousState == '\0' ? "" : "; before, it was ", previousState);
        return count == kFrequent;
    }

private:
    const char *mWhat; // "state changes"
    std::map<std::string, std::uint32_t> mCounts;
    std::uint64_t mLastReset = 0;
    std::uint64_t mLastDecay = 0;
};

std::set<std::string> &problemsPosted = *new std::set<std::string>; // path and device, one behind the other
FrequencyCounter &pathStateChanges = *new FrequencyCounter("state changes");
FrequencyCounter &powerOnResets = *new FrequencyCounter("resets");

// Asks the host about its storage: its answer, or nothing when it cannot give one. The observation's fate
// is then that the look-up failed, unless an event is posted without the answer.
template <class Ask>
auto AskHost(const char *what, const std::string &of, Ask ask)
    -> std::optional<decltype(ask(std::declval<const NodeAdm::Storage::StorageInfo &>()))>
{
    try {
        return ask(*NodeAdm::HostFactory::GetHost()->GetStorageInfo());
    } catch (const std::exception &failure) {
        KeldSay(KeldFate::LookUpFailed, "%s of %s: %s", what, of.c_str(), failure.what());
        return std::nullopt;
    }
}

std::optional<std::string> DeviceOfPath(const std::string &path)
{
    return AskHost("device", path, [&](const auto &storage) { return storage.GetDeviceNameOfPath(path); });
}

std::optional<std::uint32_t> PathRedundancy(const std::string &device)
{
    return AskHost("path redundancy", device,
                   [&](const auto &storage) { return storage.GetLun(device)->GetPathRedundancy(); });
}

// The path redundancy by which an event is chosen; kUnknown, with the fate said, when it tells nothing.
std::uint32_t KnownRedundancy(const std::string &device)
{
    const std::optional<std::uint32_t> redundancy = PathRedundancy(device);
    if (redundancy == kUnknown || redundancy > kManyPaths)
        KeldSay(KeldFate::LookUpFailed, "path redundancy of %s: %u, which tells nothing", device.c_str(),
                *redundancy);
    return redundancy.value_or(kUnknown);
}

// In quotes, separated by commas: "\"ds-gold\", \"ds-silver\""; empty when the device has none.
std::string Datastores(const std::string &device)
{
    const auto names = AskHost("datastores", device, [&](const NodeAdm::Storage::StorageInfo &storage) {
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

void CountPathStateChange(const char *path, Change change, const char *previousState = "")
{
    if (!pathStateChanges.Count(path, change, previousState, KeldNowSeconds())) return;
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
    CountPathStateChange(path, Change::Happened, previousState);

    const std::string_view previous = previousState;
    if (previous != "on" && previous != "standby") return;
    const std::optional<std::string> device = DeviceOfPath(path);
    if (!device) return;
    const std::uint32_t redundancy = KnownRedundancy(*device);
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
    problemsPosted.insert(path + *device);
}

// Posts a clear only for the very path and device that a problem was posted for.
void KeldScsiCorrelatorPathUp(Kel *kel)
{
    const char *path = nullptr, *previousState = nullptr;
    if (KeldRead<kPathState>(kel, &path, &previousState) != 0) return;
    CountPathStateChange(path, Change::Happened, previousState);

    const std::string_view previous = previousState;
    if (previous != "off" && previous != "dead") return;
    const std::optional<std::string> device = DeviceOfPath(path);
    if (!device) return;
    if (problemsPosted.erase(path + *device) == 0)
        return KeldSay(KeldFate::Counted, "nothing to clear: no loss of %s to %s was posted", path,
                       device->c_str());
    const std::uint32_t redundancy = KnownRedundancy(*device);
    if (redundancy == kUnknown) return;
    const std::string datastores = Datastores(*device);
    switch (redundancy) {
    case kNoPath:
        return KeldSay(KeldFate::Noted,
                       "the host counts no path to %s yet; %s's loss gets no clear any more",
                       device->c_str(), path);
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
    if (!powerOnResets.Count(path, Change::Happened, "", KeldNowSeconds())) return;

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

} // namespace

constinit const std::array<KeldObservation, 7> keldScsiPathObservations{{
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
}};
// clang-format on
