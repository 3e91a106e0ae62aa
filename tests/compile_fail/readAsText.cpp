// Refused: RowError_UnknownConversion
// A text is read as a pointer into the observation.
#include "keldTranslation.h"

constexpr Translation kRow{"kel.net.gone", Args("%s", "nic"),
                           "@&!*@*@(nox.problem.net.gone)NIC %s is gone."};
