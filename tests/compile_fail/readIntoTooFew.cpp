// Refused: one destination for each conversion
// A conversion without a destination.
#include "keldHandler.h"

static constexpr KeldArguments kDevice = Args("%p %d", "device, redundancy");

int Read(const Kel *kel, const char **device) { return KeldRead<kDevice>(kel, device); }
