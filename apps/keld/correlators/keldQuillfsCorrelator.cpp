// The in-memory root file system.
//
// Arrives    full ramdisks, full file tables, writes to read-only files, and any other failure.
// Remembers  when each file last failed, by kind of failure; when anything else last failed.
// Posts      one problem for each file and report, and one for all other failures.
// Time       300 s of quiet, which each observation renews.

#include "keldDomains.h"

#include "keldDomain.h"
#include "keldHoldOff.h"

#include <string>

namespace {

struct State {
    KeldHoldOff inodeTableFull{kFileSystemHoldOff}, ramdiskFull{kFileSystemHoldOff}; // by path of the file
    KeldHoldOff otherFailure{kFileSystemHoldOff};                                    // all as one
};
State &state = *new State;

constexpr KeldArguments kInodeTableArguments =
    Args("%p %p %p %p", "directory, *fileName, application, ramdisk");
constexpr KeldArguments kRamdiskArguments = Args("%p %p", "*file, ramdisk");

// KEPT: two blanks after "full."; receivers match on this text.
// clang-format off
constexpr EventText kInodeTableFull{
    "@&!*@*@(nox.problem.quillfs.ramdisk.inodetable.full)The file table of the ramdisk '%s' is full.  As a result, the file %s could not be created by the application '%s'.",
    "ramdisk, *file, application"};
constexpr EventText kRamdiskFull{
    "@&!*@*@(nox.problem.quillfs.ramdisk.full)The ramdisk '%s' is full.  As a result, the file %s could not be written.",
    "ramdisk, *file"};
constexpr EventText kFailure{"@&!*@*@(nox.problem.quillfs.failure)An operation on the root filesystem has failed.", ""};
// clang-format on

void KeldQuillfsCorrelatorHandleInodeTableFullKel(Kel *kel)
{
    const char *directory = nullptr, *fileName = nullptr, *application = nullptr, *ramdisk = nullptr;
    if (KeldRead<kInodeTableArguments>(kel, &directory, &fileName, &application, &ramdisk) != 0) return;
    const std::string file = std::string(directory) + "/" + fileName;
    if (state.inodeTableFull.Observe(file, KeldNowSeconds()))
        KeldPost<kInodeTableFull>(ramdisk, file.c_str(), application);
}

void KeldQuillfsCorrelatorHandleRamdiskFullKel(Kel *kel)
{
    const char *file = nullptr, *ramdisk = nullptr;
    if (KeldRead<kRamdiskArguments>(kel, &file, &ramdisk) != 0) return;
    if (state.ramdiskFull.Observe(file, KeldNowSeconds())) KeldPost<kRamdiskFull>(ramdisk, file);
}

// Its row keeps the observation from the failure handler: nothing on the host is wrong.
constexpr KeldHandler KeldQuillfsCorrelatorHandleTardiskReadOnlyKel = KeldCorrelatorIgnore;

void KeldQuillfsCorrelatorHandleError(Kel *kel)
{
    KeldLogKel(kel);
    if (state.otherFailure.Observe("", KeldNowSeconds())) KeldPost<kFailure>();
}

constexpr KeldNote kQuiet{"becomes a problem, unless another such of the same file came within {holdOff}",
                          kFileSystemHoldOff};

// clang-format off
constexpr KeldObservation kObservations[] = {
    {"kel.quillfs.ramdisk.inodetable.full", kInodeTableArguments, KeldQuillfsCorrelatorHandleInodeTableFullKel,  kQuiet, {&kInodeTableFull}},
    {"kel.quillfs.ramdisk.full",            kRamdiskArguments,    KeldQuillfsCorrelatorHandleRamdiskFullKel,     kQuiet, {&kRamdiskFull}},
    {"kel.quillfs.tardisk.readonlyfile",    Args(""),             KeldQuillfsCorrelatorHandleTardiskReadOnlyKel, "known, and ignored"},
};
// clang-format on

} // namespace

const KeldDomain keldQuillfsDomain{
    .name = "Quillfs",
    .domains = {"quillfs"},
    .defaultHandler = KeldQuillfsCorrelatorHandleError,
    .otherwise = {"written to the log; becomes a problem, unless another such came within {holdOff}",
                  kFileSystemHoldOff},
    .observations = kObservations,
    .defaultPosts = &kFailure,
};

void KeldCorrelator_StartQuillfs() { KeldDomainRun(keldQuillfsDomain); }
