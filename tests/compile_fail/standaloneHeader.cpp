// Refused: hostInventory.h
// The daemon knows its host through the public headers alone.
#include <hostInventory.h>
