// Refused: kelproducer.h
// The daemon is no producer.
#include <kelproducer.h>
