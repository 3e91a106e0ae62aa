// Refused: RowError_FailureMessageMalformed
// What is logged when one argument cannot be read is given the status last.
#include "keldTranslation.h"

constexpr Translation kRow{"kel.scsi.device.off",
                           Indexed("%p", "device"),
                           "@&!*@*@(nox.problem.scsi.device.off)Device %s is off.",
                           {.failed = {"Failed to read argument %d of %s"}}};
