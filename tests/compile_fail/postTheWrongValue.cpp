// Refused: the values do not fit the conversions of this text
// A text posted where the event shows a number.
#include "keldHandler.h"

static constexpr EventText kOff{"@&!*@*@(nox.problem.scsi.path.off)%u paths are off.", "paths"};

void Post(const char *paths) { KeldPost<kOff>(paths); }
