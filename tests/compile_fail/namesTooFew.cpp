// Refused: RowError_NamesDoNotFitArguments
// Fewer names than conversions in a message.
#include "keldTranslation.h"

constexpr KeldArguments kMessage = ByMessage("Page %lu of %s is lost.", "page");
