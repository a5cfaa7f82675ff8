// Ring state to bridge port states.
//
// This file is the only place that decides which ring port forwards and
// which blocks (decide_port_states), and the only place that pushes those
// states into the bridge (zalk_phy_port_state), always blocking first.
// Two promises of the ring rest on it:
//  - a focal point never forwards on both ring ports while both its links
//    are up and the ring is whole (RING_OK/RING_FAIL keep the blocked port
//    blocked);
//  - a member forwards on both ports only in OK_NET_MEMBER, so a port that
//    comes back stays blocked until the member is moved there.
#include "ring/ports.h"

#include "bridge/netlink_ops.h"
#include "daemon/instance.h"
#include "status/names.h"
#include "status/status.h"

namespace {

struct port_decision {
	uint32_t a;          // port A's state
	uint32_t b;          // port B's state
	uint32_t ring_state; // what the caller stores in ring_state
};

constexpr port_decision both_blocked(uint32_t ring_state)
{
	return {PORT_BLOCKING, PORT_BLOCKING, ring_state};
}

constexpr uint32_t forwarding_if(bool up) { return up ? PORT_FORWARDING : PORT_BLOCKING; }

// The closed ring at a focal point: the blocked port stays blocked, the
// open port forwards. A blocked_port other than 1 counts as port A.
port_decision focal_closed_ring(const zalkv2_instance &in, uint32_t ring_state)
{
	bool block_b = in.blocked_port == PORT_B;
	return {block_b ? PORT_FORWARDING : PORT_BLOCKING, block_b ? PORT_BLOCKING : PORT_FORWARDING, ring_state};
}

// The whole table of port states by requested ring state. No bridge
// request here: it only decides.
port_decision decide_port_states(const zalkv2_instance &in, uint32_t requested)
{
	const bool a_up = in.port[PORT_A].link == 1;
	const bool b_up = in.port[PORT_B].link == 1;
	const bool b_configured = zalkv2_port_configured(in.port[PORT_B]);

	switch (requested) {
	case RING_OK_NET_FOCAL:
		// A focal point cannot call its ring whole while port A is down,
		// nor while port B is down when it has one.
		if (!a_up)
			return both_blocked(RING_FAIL_NET_FOCAL);
		if (!b_configured) // bus edge: the end of the line stays closed
			return both_blocked(RING_OK_NET_FOCAL);
		if (b_up)
			return focal_closed_ring(in, RING_OK_NET_FOCAL);
		return both_blocked(RING_FAIL_NET_FOCAL);
	case RING_FAIL_NET_FOCAL:
		if (a_up && b_up && b_configured)
			return focal_closed_ring(in, RING_FAIL_NET_FOCAL);
		return both_blocked(RING_FAIL_NET_FOCAL);
	case BROKEN_NET_FOCAL:
		// The ring is broken: the focal point opens every port it can.
		return {forwarding_if(a_up), forwarding_if(b_up && b_configured), BROKEN_NET_FOCAL};
	case DOWN_NET_FOCAL:
		return both_blocked(DOWN_NET_FOCAL);
	case OK_NET_MEMBER:
		return {PORT_FORWARDING, forwarding_if(b_configured), OK_NET_MEMBER};
	case BROKEN_NET_MEMBER:
		// At most one port forwards; port B wins when both are up, so a
		// returning port A stays blocked until OK_NET_MEMBER.
		if (b_up)
			return {PORT_BLOCKING, PORT_FORWARDING, BROKEN_NET_MEMBER};
		if (a_up)
			return {PORT_FORWARDING, PORT_BLOCKING, BROKEN_NET_MEMBER};
		return both_blocked(BROKEN_NET_MEMBER);
	case DOWN_NET_MEMBER:
		return both_blocked(DOWN_NET_MEMBER);
	default:
		return both_blocked(requested);
	}
}

} // namespace

uint32_t zalk_port_states(int ins, uint32_t ring_state)
{
	zalkv2_instance &in = instances[ins];

	// Never leave a stale forwarding state behind: start from blocked.
	in.port[PORT_A].state = PORT_BLOCKING;
	in.port[PORT_B].state = PORT_BLOCKING;

	if (ring_state > DOWN_NET_MEMBER)
		zlog(LOG_ERR, "Ring state is invalid, block both ring ports\n");

	port_decision d = decide_port_states(in, ring_state);
	in.port[PORT_A].state = d.a;
	in.port[PORT_B].state = d.b;

	zalk_phy_port_state(ins);
	return d.ring_state;
}

int zalk_phy_port_state(int ins)
{
	zalkv2_instance &in = instances[ins];
	zalkv2_port &a = in.port[PORT_A];
	zalkv2_port &b = in.port[PORT_B];
	const bool b_configured = zalkv2_port_configured(b);

	if (zalk_debug(ZALK_STATE))
		zlog(LOG_NOTICE, "%s() - Port %s %s\n", "zalk_phy_port_state", a.name,
		     zalk_port_state_name(a.state));
	if (b_configured && zalk_debug(ZALK_STATE))
		zlog(LOG_NOTICE, "%s() - Port %s %s\n", "zalk_phy_port_state", b.name,
		     zalk_port_state_name(b.state));

	// Blocking reaches the bridge before forwarding: when port A is to
	// block it goes first; when port A is to forward, port B (which then
	// blocks or forwards too) goes first. The ring is never open at both
	// ports in between.
	int sum = 0;
	if (a.state == PORT_BLOCKING) {
		sum += zalkv2_set_port_state(&a, PORT_BLOCKING);
		if (b_configured)
			sum += zalkv2_set_port_state(&b, b.state);
	} else {
		if (b_configured)
			sum += zalkv2_set_port_state(&b, b.state);
		sum += zalkv2_set_port_state(&a, a.state);
	}

	if (sum != 0) {
		zlog(LOG_ERR, "%s: offload_set_port_state() failed!\n", "zalk_phy_port_state");
		return 1;
	}
	return 0;
}

int block_ring_ports(int ins)
{
	zalkv2_instance &in = instances[ins];
	int sum = zalkv2_set_port_state(&in.port[PORT_A], PORT_BLOCKING);
	if (zalkv2_port_configured(in.port[PORT_B]))
		sum += zalkv2_set_port_state(&in.port[PORT_B], PORT_BLOCKING);
	return sum;
}
