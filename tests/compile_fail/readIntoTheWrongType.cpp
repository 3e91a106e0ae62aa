// Refused: the destinations do not fit the conversions
// A text read into a number.
#include "keldTranslation.h"

static constexpr KeldArguments kDevice = Args("device:%p, redundancy:%d");

int Read(const Kel *kel, const char **device, long *redundancy)
{
    return KeldRead<kDevice>(kel, device, redundancy);
}
