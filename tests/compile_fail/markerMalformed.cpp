// Refused: RowError_MarkerMalformed
// A marker with a character missing.
#include "keldTranslation.h"

constexpr EventText kText{"@&!*@*(nox.problem.net.vmnic.linkstate.down)Physical NIC %s linkstate is down",
                          "nic"};
