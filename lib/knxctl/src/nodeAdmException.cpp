#include "knxctl/nodeAdmException.h"
