// Refused: RowError_UnknownConversion
// No argument of an observation is a floating-point number.
#include "keldTranslation.h"

constexpr Translation kRow{"kel.net.load", Args("%f", "load"), "@&!*@*@(nox.problem.net.load)Load is %s."};
