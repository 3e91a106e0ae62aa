// Refused: RowError_TooManyArguments
// More arguments than a row has room for.
#include "keldTranslation.h"

constexpr KeldArguments kThirteen =
    Args("a:%d, b:%d, c:%d, d:%d, e:%d, f:%d, g:%d, h:%d, i:%d, j:%d, k:%d, l:%d, m:%d");
