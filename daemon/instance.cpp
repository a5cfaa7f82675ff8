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

int is_focal(int ins) { return instances[ins].enabled && instances[ins].role == RING_TYPE_FOCAL ? 1 : 0; }

int is_bus_edge(int ins) { return instances[ins].port[PORT_B].ifindex == -1 ? 1 : 0; }

zalkv2_ring_port zalkv2_ring_port_by_ifindex(int ifindex)
{
	if (ifindex != -1)
		for (int i = 0; i < ZALK_MAX_INSTANCES; i++) {
			if (!instances[i].enabled)
				continue;
			for (int p = PORT_A; p <= PORT_B; p++)
				if (instances[i].port[p].ifindex == ifindex)
					return {i, p, &instances[i].port[p]};
		}
	return {-1, -1, nullptr};
}

zalkv2_port *zalkv2_port_by_ifindex(int ifindex) { return zalkv2_ring_port_by_ifindex(ifindex).port; }
