// Full VFAT file systems.
//
// Arrives    one observation for each write that found no room.
// Remembers  per file system: when it was last full.
// Posts      one problem; the host's scratch partition has one of its own.
// Time       300 s of quiet, which each observation renews.

#include "keldDomains.h"

#include "keldDomain.h"
#include "keldHoldOff.h"

#include <climits>
#include <unistd.h>

const char *keldVfatScratchLink = "/scratch";

namespace {

KeldHoldOff &holdOff = *new KeldHoldOff(kFileSystemHoldOff); // by UUID

constexpr KeldArguments kFileSystem = Args("%p %p", "fileSystem, *uuid");

// clang-format off
constexpr EventText kScratchFull{
    "@&!*@*@(nox.problem.vfat.filesystem.full.scratch)The host's scratch partition, which is the VFAT filesystem %s (UUID %s), is full.",
    "fileSystem, *uuid"};
constexpr EventText kOtherFull{
    "@&!*@*@(nox.problem.vfat.filesystem.full.other)The VFAT filesystem %s (UUID %s) is full.", "fileSystem, *uuid"};
// clang-format on

// The scratch partition is known by where the link leads; a link that cannot be read stands for itself.
bool IsScratch(std::string_view uuid)
{
    char target[PATH_MAX];
    const ssize_t length = readlink(keldVfatScratchLink, target, sizeof target - 1);
    const std::string_view path =
        length < 0 ? keldVfatScratchLink : std::string_view(target, static_cast<std::size_t>(length));
    return path.substr(path.rfind('/') + 1) == uuid;
}

void KeldVfatCorrelatorHandleFilesystemFullKel(Kel *kel)
{
    const char *fileSystem = nullptr, *uuid = nullptr;
    if (KeldRead<kFileSystem>(kel, &fileSystem, &uuid) != 0) return;
    if (!holdOff.Observe(uuid, KeldNowSeconds())) return;
    if (IsScratch(uuid))
        KeldPost<kScratchFull>(fileSystem, uuid);
    else
        KeldPost<kOtherFull>(fileSystem, uuid);
}

constexpr KeldObservation kObservations[] = {
    {"kel.vfat.filesystem.full",
     kFileSystem,
     KeldVfatCorrelatorHandleFilesystemFullKel,
     {"becomes a problem, unless another such of the same file system came within {holdOff}",
      kFileSystemHoldOff},
     {&kScratchFull, &kOtherFull}},
};

} // namespace

const KeldDomain keldVfatDomain{
    .name = "Vfat",
    .domains = {"vfat"},
    .observations = kObservations,
};

void KeldCorrelator_StartVfat() { KeldDomainRun(keldVfatDomain); }
