// Local link events of the ring ports, and the focal point's memory of
// the switches that reported a returning link.
#include "ring/link.h"

#include <cstring>

#include "daemon/instance.h"
#include "frames/frames.h"
#include "frames/senders.h"
#include "frames/sockets.h"
#include "ring/focal.h"
#include "ring/member.h"
#include "status/names.h"
#include "status/status.h"

void send_link_down(int ins, int port)
{
	// The report goes away from the failure, towards the rest of the
	// ring; a port the ring does not have sends nothing.
	zalkv2_instance &in = instances[ins];
	zalkv2_port &out = in.port[zalkv2_other_port(port)];
	if (!zalkv2_port_configured(out))
		return;
	packet_send(&out, in.tpl_link_down, ZALK_FRAME_LEN);
}

void store_edge_id(int ins, const uint8_t *payload)
{
	if (!payload) {
		zlog(LOG_ERR, "No valid data\n");
		return;
	}
	zalkv2_instance &in = instances[ins];
	const zalkv2_link_fields up = zalkv2_decode_link_payload(payload);
	const uint8_t *id = up.sender;

	// A switch that repeats its Link Up is remembered once.
	if (!memcmp(in.edge[0].edge_id, id, 8) || !memcmp(in.edge[1].edge_id, id, 8))
		return;

	// A new id replaces the older of the two slots; the first goes to slot 1.
	int slot = in.edge[1].edge_latest == 0 ? 1 : 0;
	memcpy(in.edge[slot].edge_id, id, 8);
	in.edge[slot].edge_latest = 1;
	in.edge[slot ^ 1].edge_latest = 0;
}

void local_link_down(int ins, int port)
{
	zalkv2_instance &in = instances[ins];
	zalkv2_port &p = in.port[port & 1];

	if (zalk_debug(ZALK_TRACE))
		zlog(LOG_NOTICE, "%s() - %s state: %s\n", "local_link_down",
		     p.link == 1 ? "Link down" : "Port already down", zalk_ring_state_name(in.ring_state, false));
	if (p.link == 0)
		return;
	p.link = 0;

	const bool other_up = in.port[zalkv2_other_port(port)].link == 1;
	if (is_focal(ins)) {
		focal_config_ring_topology(ins, other_up ? BROKEN_NET_FOCAL : DOWN_NET_FOCAL, 1);
	} else {
		if (other_up)
			member_config_ring_topology(ins, BROKEN_NET_MEMBER, 1);
		else
			member_config_ring_topology(ins, DOWN_NET_MEMBER, 0);
		// A returning link that was being announced is gone again.
		in.sending_link_up = 0;
		in.fwd_cnt = 0;
		send_link_down(ins, port);
	}
	zalkv2_flush_other_rings(ins);
}

void local_link_up(struct ev_loop *loop, int ins, int port)
{
	zalkv2_instance &in = instances[ins];
	zalkv2_port &p = in.port[port & 1];

	if (zalk_debug(ZALK_TRACE)) {
		int edge = is_edge_switch(ins, port); // traces its own line first
		zlog(LOG_NOTICE, "%s() - edge:%d bus_edge:%d state: %s sending link up: %d\n", "local_link_up", edge,
		     is_bus_edge(ins), zalk_ring_state_name(in.ring_state, false), in.sending_link_up);
	}
	if (p.link == 1)
		return;
	p.link = 1;

	if (is_focal(ins)) {
		// The ring is closed only by the response-delay hold, after the
		// blocked port has been blocked again.
		in.link_up_pending = 1;
		return;
	}
	member_local_link_up(loop, ins, port & 1);
}
