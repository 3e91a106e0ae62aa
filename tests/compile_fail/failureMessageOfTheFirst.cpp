// Refused: RowError_FailureMessageMalformed
// When the first argument cannot be read, there is none to name in the message.
#include "keldTranslation.h"

constexpr Translation kRow{"kel.scsi.device.off",
                           Indexed("%p", "device"),
                           "@&!*@*@(nox.problem.scsi.device.off)Device %s is off.",
                           {.failed = {"Failed to read of %s: %d"}}};
