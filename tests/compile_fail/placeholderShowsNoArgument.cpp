// Refused: RowError_TextDoesNotFitArguments
// A placeholder that shows an argument which is not read.
#include "keldTranslation.h"

constexpr Translation kRow{"kel.external.error",
                           Args("component:%p, link:%p"),
                           "@&!*@*@(nox.problem.3rdParty.error)Component %s, see %s.",
                           {.shows = "0 2"}};
