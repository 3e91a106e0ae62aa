// DSFS datastore volumes.
//
// Arrives    locks, extents, mounts, lock modes, heartbeats, on-disk corruption, lost NFS servers.
// Remembers  nothing.
// Posts      one event for each observation, at once.
// Time       none.
//
// A volume's UUID travels as nine numbers and is posted as one text.

#include "keldDomains.h"

#include "keldDomain.h"

namespace {

constexpr KeldArguments kVolume = Args("%p %U", "volumeName, *volumeUuid");
constexpr KeldArguments kLockModes =
    Args("%p %U %p %p %p", "volumeName, *volumeUuid, lockModeAtOpen, lockModeNow, hostLockMode");
constexpr KeldArguments kExtent = Args("%p %p", "device, *fileSystem");

void KeldDsfsCorrelatorDoExtentOffline(Kel *kel);

// KEPT: "notsupport" and "intialization"; receivers match on this text. An extent that comes back
// online is posted as a problem: its type ID says so, and receivers wait for that ID.
// clang-format off
constexpr EventText kExtentOffline =
    "@&!*@*@(nox.problem.dsfs.extent.offline)An attached device %s may be offline. The file system %s is now in a degraded state. While the datastore is still available, parts of data that reside on the extent that went offline might be inaccessible.";

constexpr Translation kRows[] = {
    {"kel.dsfs.error.volume.is.locked", Args("%p", "*device"),
     "@&!*@*@(nox.problem.dsfs.error.volume.is.locked)Volume on device %s is locked, possibly because some remote host encountered an error during a volume operation and could not recover."},
    {"kel.dsfs.extent.offline", kExtent, kExtentOffline, {.handler = KeldDsfsCorrelatorDoExtentOffline}},
    {"kel.dsfs.extent.online", kExtent,
     "@&!*@*@(nox.problem.dsfs.extent.online)Device %s backing file system %s came online. This extent was previously offline. All resources on this device are now available."},
    {"kel.dsfs.volume.mounted", Args("%p %p %p", "*fileSystem, volume, mode"),
     "@&!*@*@(nox.audit.dsfs.volume.mounted)File system %s on volume %s has been mounted in '%s' mode. The datastore is now accessible on this host."},
    {"kel.dsfs.volume.umounted", Args("%p %p", "*fileSystem, volume"),
     "@&!*@*@(nox.audit.dsfs.volume.umounted)File system %s on volume %s has been safely un-mounted. The datastore is no longer accessible on this host."},
    {"kel.dsfs.ats.support.lost", Args("%p", "*volume"),
     "@&!*@*@(nox.problem.dsfs.ats.support.lost)ATS-Only DSFS volume '%s' will not be mounted. Host does notsupport ATS or ATS intialization has failed."},
    {"kel.dsfs.spanstate.incompatibility.detected", kVolume,
     "@&!*@*@(nox.problem.dsfs.spanstate.incompatibility.detected)Incompatible span change detected for DSFS volume '%s' (%s): volume was not spanned at time of open but now it is, and this host is using ATS-only lockmode but the volume is not ATS-only. Volume descriptor refresh operations will fail until this host unmounts and remounts the volume."},
    {"kel.dsfs.lockmode.inconsistency.detected", kLockModes,
     "@&!*@*@(nox.problem.dsfs.lockmode.inconsistency.detected)Inconsistent lockmode change detected for DSFS volume '%s' (%s): volume was configured for %s lockmode at time of open and now it is configured for %s lockmode but this host is not using %s lockmode. Protocol error during ATS transition. Volume descriptor refresh operations will fail until this host unmounts and remounts the volume."},
    {"kel.dsfs.ats.incompatibility.detected", kVolume,
     "@&!*@*@(nox.problem.dsfs.ats.incompatibility.detected)Multi-extent ATS-only volume '%s' (%s) is unable to use ATS because HardwareAcceleratedLocking is disabled on this host: potential for introducing filesystem corruption. Volume should not be used from other hosts."},
    {"kel.dsfs.spanned.lockmode.inconsistency.detected", kLockModes,
     "@&!*@*@(nox.problem.dsfs.spanned.lockmode.inconsistency.detected)Inconsistent lockmode change detected for spanned DSFS volume '%s' (%s): volume was configured for %s lockmode at time of open and now it is configured for %s lockmode but this host is not using %s lockmode. All operations on this volume will fail until this host unmounts and remounts the volume."},
};
// clang-format on
static_assert(DistinctUnder(kRows, "kel.dsfs."), "a row stands twice, or outside its domain");

// A device that is gone may have no name any more; its file system still has one. A read that fails
// leaves both null.
void KeldDsfsCorrelatorDoExtentOffline(Kel *kel)
{
    const char *device = nullptr, *fileSystem = nullptr;
    (void)KeldRead<kExtent>(kel, &device, &fileSystem);
    if (fileSystem != nullptr) KeldPost<kExtentOffline>(device == nullptr ? "" : device, fileSystem);
}

// ---- Observations that share a handler ------------------------------------------------------------

void KeldDsfsCorrelatorDoVolumeNameAndLabel(Kel *kel);
void KeldDsfsCorrelatorDoNFSVolume(Kel *kel);

constexpr KeldArguments kLabel = Args("%U %p", "*volumeUuid, volumeLabel");
// The producer decides what the three texts of a server mean; they are passed on in its order.
constexpr KeldArguments kNfs = Args("%p %p %U %p", "first, second, *volumeUuid, last");

constexpr KeldRowOptions kByLabel{.handler = KeldDsfsCorrelatorDoVolumeNameAndLabel};
constexpr KeldRowOptions kByNfs{.handler = KeldDsfsCorrelatorDoNFSVolume};

// KEPT: a recovered heartbeat and a restored server are problems too, as their type IDs say.
// clang-format off
constexpr Translation kSharedRows[] = {
    {"kel.dsfs.heartbeat.timedout",      kLabel, "@&!*@*@(nox.problem.dsfs.heartbeat.timedout)%s %s",        kByLabel},
    {"kel.dsfs.heartbeat.recovered",     kLabel, "@&!*@*@(nox.problem.dsfs.heartbeat.recovered)%s %s",       kByLabel},
    {"kel.dsfs.journal.createfailed",    kLabel, "@&!*@*@(nox.problem.dsfs.journal.createfailed)%s %s",      kByLabel},
    {"kel.dsfs.heartbeat.unrecoverable", kLabel, "@&!*@*@(nox.problem.dsfs.heartbeat.unrecoverable)%s %s",   kByLabel},
    {"kel.dsfs.lock.corruptondisk.v2",   kLabel, "@&!*@*@(nox.problem.dsfs.lock.corruptondisk.v2)%s %s",     kByLabel},
    {"kel.dsfs.resource.corruptondisk",  kLabel, "@&!*@*@(nox.problem.dsfs.resource.corruptondisk)%s %s",    kByLabel},
    {"kel.dsfs.heartbeat.corruptondisk", kLabel, "@&!*@*@(nox.problem.dsfs.heartbeat.corruptondisk)%s %s",   kByLabel},
    {"kel.dsfs.nfs.server.disconnect",   kNfs,   "@&!*@*@(nox.problem.dsfs.nfs.server.disconnect)%s %s %s %s", kByNfs},
    {"kel.dsfs.nfs.server.restored",     kNfs,   "@&!*@*@(nox.problem.dsfs.nfs.server.restored)%s %s %s %s",   kByNfs},
};
// clang-format on
static_assert(DistinctUnder(kSharedRows, "kel.dsfs."), "a row stands twice, or outside its domain");

constexpr auto kObservations = KeldObservationsOf<kSharedRows>([](const Translation &row) {
    return KeldObservation{row.id, row.arguments, row.handler, "becomes one problem", {&row.event}};
});

constexpr const char *kModule = "apps/keld/keldDsfsCorrelator";

// Both panic on an ID without a row: somebody has registered the handler without saying what it posts.
void KeldDsfsCorrelatorDoVolumeNameAndLabel(Kel *kel)
{
    if (KeldTranslateById<kSharedRows, KeldDsfsCorrelatorDoVolumeNameAndLabel>(kel) ==
        KeldTranslated::NoSuchRow)
        KeldNotReached(kModule, 142);
}

void KeldDsfsCorrelatorDoNFSVolume(Kel *kel)
{
    if (KeldTranslateById<kSharedRows, KeldDsfsCorrelatorDoNFSVolume>(kel) == KeldTranslated::NoSuchRow)
        KeldNotReached(kModule, 646);
}

// Every other observation of a volume.
constexpr KeldHandler KeldDsfsCorrelatorCorrelate = KeldCorrelatorIgnore;

} // namespace

const KeldDomain keldDsfsDomain{
    .name = "dsfs",
    .domains = {"dsfs"},
    .defaultHandler = KeldDsfsCorrelatorCorrelate,
    .otherwise = "ignored",
    .translations = KeldTranslations<kRows>,
    .observations = kObservations,
};

void KeldCorrelator_StartDsfs() { KeldDomainRun(keldDsfsDomain); }
