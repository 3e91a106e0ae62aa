// Refused: each row lies in the domain
// A row whose observation no agent of the domain receives.
#include "keldTranslation.h"

constexpr Translation kRows[] = {
    {"kel.vfat.filesystem.full", Args(""), "@&!*@*@(nox.problem.vfat.filesystem.full.other)Full."},
};
static_assert(DistinctUnder(kRows, "kel.dsfs."), "each row lies in the domain");
