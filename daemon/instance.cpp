#include "daemon/instance.h"

// Zero-initialised static storage: all slots free at start.
zalkv2_instance instances[ZALK_MAX_INSTANCES];
