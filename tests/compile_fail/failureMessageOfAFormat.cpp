// Refused: RowError_FailureMessageMalformed
// What is logged when a read in one call fails is given the observation's ID and the status.
#include "keldTranslation.h"

constexpr Translation kRow{"kel.scsi.device.off",
                           Args("%p", "device"),
                           "@&!*@*@(nox.problem.scsi.device.off)Device %s is off.",
                           {.failed = {"Failed to read the arguments: %d"}}};
