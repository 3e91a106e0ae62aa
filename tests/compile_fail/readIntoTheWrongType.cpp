// Refused: the destinations do not fit the conversions
// A text read into a number.
#include "keldHandler.h"

static constexpr KeldArguments kDevice = Args("%p %d", "device, redundancy");

int Read(const Kel *kel, const char **device, long *redundancy)
{
    return KeldRead<kDevice>(kel, device, redundancy);
}
