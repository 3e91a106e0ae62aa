// Refused: each observation has one row
// Two rows for one observation: the second would never be used.
#include "keldTranslation.h"

constexpr Translation kRows[] = {
    {"kel.dsfs.ats.support.lost", Args(""), "@&!*@*@(nox.problem.dsfs.ats.support.lost)Lost."},
    {"kel.dsfs.ats.support.lost", Args(""), "@&!*@*@(nox.problem.dsfs.ats.support.gone)Gone."},
};
static_assert(DistinctUnder(kRows, "kel.dsfs."), "each observation has one row");
