// Refused: RowError_UnknownConversion
// A producer's message is read by itself, and has one flag to a conversion at most.
#include "keldTranslation.h"

constexpr KeldArguments kOffset = ByMessage("Offset is %+-d.", "offset");
