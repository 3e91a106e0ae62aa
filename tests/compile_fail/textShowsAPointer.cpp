// Refused: RowError_UnknownConversion
// What is shown has %s for a text.
#include "keldTranslation.h"

constexpr EventText kGone("@&!*@*@(nox.problem.net.gone)NIC %p is gone.", "nic");
