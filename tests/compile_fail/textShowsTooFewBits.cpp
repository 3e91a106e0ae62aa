// Refused: RowError_TextDoesNotFitArguments
// 64 bits read and 32 shown.
#include "keldTranslation.h"

constexpr Translation kRow{"kel.scsi.latency", Args("%lu", "microseconds"),
                           "@&!*@*@(nox.problem.scsi.latency)Latency is %u microseconds."};
