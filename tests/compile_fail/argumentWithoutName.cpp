// Refused: RowError_NamesDoNotFitArguments
// Every argument has a name for the catalogue.
#include "keldTranslation.h"

constexpr KeldArguments kNameless = Args("%p %p %p", "component, , message");
