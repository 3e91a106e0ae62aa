// Refused: RowError_UnknownConversion
// A text that ends within a conversion.
#include "keldTranslation.h"

constexpr EventText kText{"@&!*@*@(nox.problem.net.load)Load is 100%", ""};
