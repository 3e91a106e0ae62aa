// Refused: RowError_TextDoesNotFitArguments
// A number shown as a text would crash the daemon.
#include "keldTranslation.h"

constexpr Translation kRow{"kel.net.uplink.mtu.failed", Args("%d", "mtu"),
                           "@&!*@*@(nox.problem.net.uplink.mtu.failed)Failed to set the MTU value %s."};
