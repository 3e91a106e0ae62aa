// Refused: RowError_TooManyArguments
// More arguments than a row has room for.
#include "keldTranslation.h"

constexpr KeldArguments kThirteen =
    Args("%d %d %d %d %d %d %d %d %d %d %d %d %d", "a, b, c, d, e, f, g, h, i, j, k, l, m");
