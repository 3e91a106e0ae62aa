// Refused: RowError_MarkerMalformed
// A marker whose type ID does not end.
#include "keldTranslation.h"

constexpr EventText kText{"@&!*@*@(nox.problem.net.vmnic.linkstate.down Physical NIC %s linkstate is down",
                          "nic"};
