// Refused: RowError_TextDoesNotFitArguments
// An argument that is read and not shown.
#include "keldTranslation.h"

constexpr Translation kRow{"kel.net.lacp.uplink.blocked", Args("%p %p", "uplink, switch"),
                           "@&!*@*@(nox.problem.net.lacp.uplink.blocked)uplink %s is blocked"};
