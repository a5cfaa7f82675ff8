#include "daemon/instance.h"

// Zero-initialised static storage: all slots free at start.
zalkv2_instance instances[ZALK_MAX_INSTANCES];

int zalkv2_find_instance(int ring_id)
{
	for (int i = 0; i < ZALK_MAX_INSTANCES; i++)
		if (instances[i].enabled && instances[i].ring_id == ring_id)
			return i;
	return -1;
}

int zalkv2_alloc_instance(int ring_id)
{
	int ins = zalkv2_find_instance(ring_id);
	if (ins != -1)
		return ins;
	for (int i = 0; i < ZALK_MAX_INSTANCES; i++)
		if (!instances[i].enabled)
			return i;
	return -1;
}
