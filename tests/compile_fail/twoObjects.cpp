// Refused: RowError_TwoObjects
// An observation is about one thing.
#include "keldTranslation.h"

constexpr KeldArguments kBoth = Args("%p %p", "*device, *path");
