// The in-memory root file system.
//
// Arrives    full ramdisks, full file tables, writes to read-only files, and any other failure.
// Remembers  when each file last failed, by kind of failure; when anything else last failed.
// Posts      one problem for each file and report, and one for all other failures.
// Time       300 s of quiet, which each observation renews.

#include "keldDomains.h"

#include "keldQuietPeriod.h"
#include "keldTranslation.h"

#include <map>
#include <string>

namespace {

struct State {
    // By path of the file. As many as there are files that ran into it: never pruned.
    std::map<std::string, KeldQuietPeriod> inodeTableFull;
    std::map<std::string, KeldQuietPeriod> ramdiskFull;
    KeldQuietPeriod otherFailure;
};
State &state = *new State;

constexpr KeldArguments kInodeTableArguments =
    Args("directory:%p, fileName:%p, application:%p, ramdisk:%p");
constexpr KeldArguments kRamdiskArguments = Args("file:%p, ramdisk:%p");

// KEPT: two blanks after "full."; receivers match on this text.
// clang-format off
constexpr EventText kInodeTableFull{
    "@&!*@*@(nox.problem.quillfs.ramdisk.inodetable.full)The file table of the ramdisk '%s' is full.  As a result, the file %s could not be created by the application '%s'.",
    "ramdisk, file, application"};
constexpr EventText kRamdiskFull{
    "@&!*@*@(nox.problem.quillfs.ramdisk.full)The ramdisk '%s' is full.  As a result, the file %s could not be written.",
    "ramdisk, file"};
constexpr EventText kFailure{"@&!*@*@(nox.problem.quillfs.failure)An operation on the root filesystem has failed.", ""};
// clang-format on

void KeldQuillfsCorrelatorHandleInodeTableFullKel(Kel *kel)
{
    const char *directory = nullptr, *fileName = nullptr, *application = nullptr, *ramdisk = nullptr;
    if (KeldRead<kInodeTableArguments>(kel, &directory, &fileName, &application, &ramdisk) != 0) return;
    const std::string file = std::string(directory) + "/" + fileName;
    if (state.inodeTableFull[file].Observe(KeldNowSeconds()))
        KeldPost<kInodeTableFull>(ramdisk, file.c_str(), application);
}

void KeldQuillfsCorrelatorHandleRamdiskFullKel(Kel *kel)
{
    const char *file = nullptr, *ramdisk = nullptr;
    if (KeldRead<kRamdiskArguments>(kel, &file, &ramdisk) != 0) return;
    if (state.ramdiskFull[file].Observe(KeldNowSeconds())) KeldPost<kRamdiskFull>(ramdisk, file);
}

// Its row keeps the observation from the failure handler: nothing on the host is wrong.
void KeldQuillfsCorrelatorHandleTardiskReadOnlyKel(Kel *) {}

void KeldQuillfsCorrelatorHandleError(Kel *kel)
{
    KeldLogKel(kel);
    if (state.otherFailure.Observe(KeldNowSeconds())) KeldPost<kFailure>();
}

constexpr const char *kQuietNote =
    "becomes a problem, unless another such of the same file came within 300 seconds";

// clang-format off
constexpr KeldObservation kObservations[] = {
    {"kel.quillfs.ramdisk.inodetable.full", kInodeTableArguments, KeldQuillfsCorrelatorHandleInodeTableFullKel,  kQuietNote, {&kInodeTableFull}},
    {"kel.quillfs.ramdisk.full",            kRamdiskArguments,    KeldQuillfsCorrelatorHandleRamdiskFullKel,     kQuietNote, {&kRamdiskFull}},
    {"kel.quillfs.tardisk.readonlyfile",    Args(""),             KeldQuillfsCorrelatorHandleTardiskReadOnlyKel, "known, and ignored"},
};
// clang-format on

} // namespace

const KeldDomain keldQuillfsDomain{
    .name = "Quillfs",
    .domains = {"quillfs"},
    .defaultHandler = KeldQuillfsCorrelatorHandleError,
    .otherwise = "written to the log; becomes a problem, unless another such came within 300 seconds",
    .observations = kObservations,
    .defaultPosts = &kFailure,
};

void KeldCorrelator_StartQuillfs() { KeldDomainRun(keldQuillfsDomain); }
