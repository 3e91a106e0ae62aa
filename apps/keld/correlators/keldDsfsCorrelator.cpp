// DSFS datastore volumes.
//
// Arrives    locks, extents, mounts, lock modes, heartbeats, on-disk corruption, lost NFS servers.
// Remembers  nothing.
// Posts      one event for each observation, at once.
// Time       none.
//
// A volume's UUID travels as nine numbers and is posted as one text.

#include "keldDomains.h"

#include "keldTranslation.h"

namespace {

constexpr KeldArguments kVolume = Args("volumeName:%p, volumeUuid:%U");
constexpr KeldArguments kLockModes =
    Args("volumeName:%p, volumeUuid:%U, lockModeAtOpen:%p, lockModeNow:%p, hostLockMode:%p");

// KEPT: "notsupport" and "intialization"; receivers match on this text. An extent that comes back
// online is posted as a problem: its type ID says so, and receivers wait for that ID.
// clang-format off
constexpr Translation kRows[] = {
    {"kel.dsfs.error.volume.is.locked", Args("device:%p"),
     "@&!*@*@(nox.problem.dsfs.error.volume.is.locked)Volume on device %s is locked, possibly because some remote host encountered an error during a volume operation and could not recover."},
    // A device that is gone may have no name any more; its file system still has one.
    {"kel.dsfs.extent.offline", Args("device:%p, fileSystem:%p").NullAs(0, ""),
     "@&!*@*@(nox.problem.dsfs.extent.offline)An attached device %s may be offline. The file system %s is now in a degraded state. While the datastore is still available, parts of data that reside on the extent that went offline might be inaccessible."},
    {"kel.dsfs.extent.online", Args("device:%p, fileSystem:%p"),
     "@&!*@*@(nox.problem.dsfs.extent.online)Device %s backing file system %s came online. This extent was previously offline. All resources on this device are now available."},
    {"kel.dsfs.volume.mounted", Args("fileSystem:%p, volume:%p, mode:%p"),
     "@&!*@*@(nox.audit.dsfs.volume.mounted)File system %s on volume %s has been mounted in '%s' mode. The datastore is now accessible on this host."},
    {"kel.dsfs.volume.umounted", Args("fileSystem:%p, volume:%p"),
     "@&!*@*@(nox.audit.dsfs.volume.umounted)File system %s on volume %s has been safely un-mounted. The datastore is no longer accessible on this host."},
    {"kel.dsfs.ats.support.lost", Args("volume:%p"),
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
static_assert(std::size(kRows) == 10 && DistinctUnder(kRows, "kel.dsfs."));

// ---- Observations that share a handler ------------------------------------------------------------

constexpr KeldArguments kUuidAndLabel = Args("volumeUuid:%U, volumeLabel:%p");
// What the three texts of a server mean is the producer's; they are passed on in its order.
constexpr KeldArguments kNfsVolume = Args("first:%p, second:%p, volumeUuid:%U, last:%p");

constexpr std::string_view kLabelNames = "volumeUuid, volumeLabel";
constexpr std::string_view kNfsNames = "first, second, volumeUuid, last";

// KEPT: a recovered heartbeat and a restored server are problems too, as their type IDs say.
// clang-format off
constexpr EventText kHeartbeatTimedOut{"@&!*@*@(nox.problem.dsfs.heartbeat.timedout)%s %s", kLabelNames};
constexpr EventText kHeartbeatRecovered{"@&!*@*@(nox.problem.dsfs.heartbeat.recovered)%s %s", kLabelNames};
constexpr EventText kJournalCreateFailed{"@&!*@*@(nox.problem.dsfs.journal.createfailed)%s %s", kLabelNames};
constexpr EventText kHeartbeatUnrecoverable{"@&!*@*@(nox.problem.dsfs.heartbeat.unrecoverable)%s %s", kLabelNames};
constexpr EventText kLockCorrupt{"@&!*@*@(nox.problem.dsfs.lock.corruptondisk.v2)%s %s", kLabelNames};
constexpr EventText kResourceCorrupt{"@&!*@*@(nox.problem.dsfs.resource.corruptondisk)%s %s", kLabelNames};
constexpr EventText kHeartbeatCorrupt{"@&!*@*@(nox.problem.dsfs.heartbeat.corruptondisk)%s %s", kLabelNames};

constexpr EventText kNfsDisconnect{"@&!*@*@(nox.problem.dsfs.nfs.server.disconnect)%s %s %s %s", kNfsNames};
constexpr EventText kNfsRestored{"@&!*@*@(nox.problem.dsfs.nfs.server.restored)%s %s %s %s", kNfsNames};

// One observation of a shared handler, and what it becomes.
template <class... Ts> struct Choice {
    const char *id;
    const EventText *event;
    void (*post)(Ts...);
};
using LabelChoice = Choice<const char *, const char *>;
using NfsChoice = Choice<const char *, const char *, const char *, const char *>;

constexpr LabelChoice kLabelChoices[] = {
    {"kel.dsfs.heartbeat.timedout",      &kHeartbeatTimedOut,      KeldPost<kHeartbeatTimedOut>},
    {"kel.dsfs.heartbeat.recovered",     &kHeartbeatRecovered,     KeldPost<kHeartbeatRecovered>},
    {"kel.dsfs.journal.createfailed",    &kJournalCreateFailed,    KeldPost<kJournalCreateFailed>},
    {"kel.dsfs.heartbeat.unrecoverable", &kHeartbeatUnrecoverable, KeldPost<kHeartbeatUnrecoverable>},
    {"kel.dsfs.lock.corruptondisk.v2",   &kLockCorrupt,            KeldPost<kLockCorrupt>},
    {"kel.dsfs.resource.corruptondisk",  &kResourceCorrupt,        KeldPost<kResourceCorrupt>},
    {"kel.dsfs.heartbeat.corruptondisk", &kHeartbeatCorrupt,       KeldPost<kHeartbeatCorrupt>},
};
constexpr NfsChoice kNfsChoices[] = {
    {"kel.dsfs.nfs.server.disconnect", &kNfsDisconnect, KeldPost<kNfsDisconnect>},
    {"kel.dsfs.nfs.server.restored",   &kNfsRestored,   KeldPost<kNfsRestored>},
};
// clang-format on

constexpr const char *kModule = "apps/keld/keldDsfsCorrelator";
constexpr int kLabelNotReachedLine = 142;
constexpr int kNfsNotReachedLine = 646;

// Posts what the observation's ID chooses. Panics on an ID that is not among the choices: somebody has
// registered the handler for it without saying what it is to post.
template <class ChoiceT, std::size_t N, class... Ts>
void PostChoice(const Kel *kel, const ChoiceT (&choices)[N], int notReachedLine, Ts... values)
{
    const char *id = nullptr;
    Kel_GetID(kel, &id);
    for (const ChoiceT &choice : choices)
        if (Kel_IsID(id, choice.id)) return choice.post(values...);
    KeldNotReached(kModule, notReachedLine);
}

void KeldDsfsCorrelatorDoVolumeNameAndLabel(Kel *kel)
{
    KeldVolumeUuid uuid;
    const char *label = nullptr;
    if (KeldRead<kUuidAndLabel>(kel, &uuid, &label) != 0) return;
    PostChoice(kel, kLabelChoices, kLabelNotReachedLine, uuid.Format(), label);
}

void KeldDsfsCorrelatorDoNFSVolume(Kel *kel)
{
    const char *first = nullptr, *second = nullptr, *last = nullptr;
    KeldVolumeUuid uuid;
    if (KeldRead<kNfsVolume>(kel, &first, &second, &uuid, &last) != 0) return;
    PostChoice(kel, kNfsChoices, kNfsNotReachedLine, first, second, uuid.Format(), last);
}

constexpr KeldObservation Of(const LabelChoice &choice)
{
    return {choice.id,
            kUuidAndLabel,
            KeldDsfsCorrelatorDoVolumeNameAndLabel,
            "becomes one problem",
            {choice.event}};
}

constexpr KeldObservation Of(const NfsChoice &choice)
{
    return {choice.id, kNfsVolume, KeldDsfsCorrelatorDoNFSVolume, "becomes one problem", {choice.event}};
}

constexpr KeldObservation kObservations[] = {
    Of(kLabelChoices[0]), Of(kLabelChoices[1]), Of(kLabelChoices[2]),
    Of(kLabelChoices[3]), Of(kLabelChoices[4]), Of(kLabelChoices[5]),
    Of(kLabelChoices[6]), Of(kNfsChoices[0]),   Of(kNfsChoices[1]),
};
static_assert(std::size(kObservations) == std::size(kLabelChoices) + std::size(kNfsChoices),
              "every choice is an observation");

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
