// Refused: one destination for each conversion
// A conversion without a destination.
#include "keldTranslation.h"

static constexpr KeldArguments kDevice = Args("device:%p, redundancy:%d");

int Read(const Kel *kel, const char **device) { return KeldRead<kDevice>(kel, device); }
