// Refused: format
// What a producer reports is checked as printf's arguments are.
#include "../../lib/kltlibs/producer/kelproducer.h"

int Emit(KelProducer *producer) { return KelProducer_Emit(producer, "kel.net.x", "%s is down", 3); }
