// Refused: RowError_TypeIdHasNoClass
// There are problems, audits and clears, and nothing else.
#include "keldTranslation.h"

constexpr EventText kText{"@&!*@*@(nox.warning.net.vmnic.linkstate.down)Physical NIC %s linkstate is down",
                          "nic"};
