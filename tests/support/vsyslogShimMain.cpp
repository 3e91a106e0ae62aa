// The shim alone, to be preloaded into the daemon as it is shipped.
#include "vsyslogShim.h"
