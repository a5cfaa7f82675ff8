// The member role: ring state changes, the announcement of a returning
// link with Link Up frames, and the forward delay.
//
// A returning port is never opened here: while the announcement runs the
// ring state (and so the port states) stay as they are, and only the
// link-response step of the dispatcher, on the focal point's answer or on
// the expiry posted below, moves the member to OK_NET_MEMBER.
#include "ring/member.h"

#include <initializer_list>

#include "bridge/netlink_ops.h"
#include "daemon/instance.h"
#include "frames/frames.h"
#include "frames/sockets.h"
#include "ring/channel.h"
#include "ring/ports.h"
#include "status/eventlog.h"
#include "status/files.h"
#include "status/names.h"
#include "status/status.h"

ev_timer member_timer;

namespace {

constexpr double MEMBER_TICK = 0.2; // Link Up and forward-delay tick

constexpr int LOGICAL_QUALIFIED = 2; // link up, port still blocked

bool announcing(int ins) { return instances[ins].enabled && instances[ins].sending_link_up == 1; }

bool forward_delay_expired(const zalkv2_instance &in)
{
	int32_t limit = in.port[PORT_A].fwd_delay; // 0: wait for the focal point
	return limit != 0 && in.fwd_cnt > limit;
}

} // namespace

int is_edge_switch(int ins, int port)
{
	if (is_bus_edge(ins))
		return 0;
	const zalkv2_instance &in = instances[ins];
	int edge = in.port[zalkv2_other_port(port)].link == 0 ? 1 : 0;
	if (zalk_debug(ZALK_TRACE))
		zlog(LOG_NOTICE, "%s() - Link A:%d B:%d Switch is edge: %d\n", "is_edge_switch",
		     in.port[PORT_A].link, in.port[PORT_B].link, edge);
	return edge;
}

void member_timer_init()
{
	ev_timer_init(&member_timer, member_link_up_cb, 0., MEMBER_TICK);
}

void member_config_ring_topology(int ins, uint32_t state, int force)
{
	zalkv2_instance &in = instances[ins];
	if (!force && in.ring_state == state) {
		if (zalk_debug(ZALK_STATE))
			zlog(LOG_NOTICE, "%s() - Ins:%d No change, same ring state %s\n", "member_config_ring_topology",
			     ins, zalk_ring_state_name(state, true));
		return;
	}
	if (zalk_debug(ZALK_STATE))
		zlog(LOG_NOTICE, "%s() - Change ring state %s -> %s\n", "member_config_ring_topology",
		     zalk_ring_state_name(in.ring_state, true), zalk_ring_state_name(state, true));

	in.ring_state = zalk_port_states(ins, state);
	zalkv2_fdb_flush(ins);
	zalk_set_status(ins);
}

void send_link_up_packets(int ins)
{
	zalkv2_instance &in = instances[ins];
	zalkv2_zero_bridge_id(in.tpl_link_up + tx_off::LINK_ID1);
	// Name the neighbour behind the port that came back and is still
	// blocked.
	int returning = zalk_port_logical_state(ins, PORT_A) == LOGICAL_QUALIFIED ? PORT_A : PORT_B;
	zalkv2_remote_bridge_id(ins, returning, in.tpl_link_up + tx_off::LINK_ID2);

	for (int port : {PORT_A, PORT_B})
		if (zalkv2_port_configured(in.port[port]))
			packet_send(&in.port[port], in.tpl_link_up, ZALK_FRAME_LEN);
}

void member_local_link_up(struct ev_loop *loop, int ins, int port)
{
	zalkv2_instance &in = instances[ins];
	if (in.ring_state == OK_NET_MEMBER)
		return;
	if (is_edge_switch(ins, port)) {
		// The other link is down: no ring can close through us, the port
		// that came up may forward at once.
		member_config_ring_topology(ins, BROKEN_NET_MEMBER, 0);
		return;
	}
	if (in.sending_link_up == 1)
		return; // already announcing; the count goes on

	in.sending_link_up = 1;
	send_link_up_packets(ins);
	ev_timer_again(loop, &member_timer);
}

void check_fwd_delay_expired(int ins)
{
	zalkv2_instance &in = instances[ins];
	send_link_up_packets(ins);
	in.fwd_cnt++;
	if (forward_delay_expired(in)) {
		// Handled by the dispatcher like the focal point's answer.
		sm_send_event((uint32_t)ins, RX_LINK_RESPONSE, nullptr, 0);
		in.fwd_cnt = 0;
		if (zalk_debug(ZALK_STATE))
			zlog(LOG_NOTICE, "%s() - %s - Ins %d Counter expired, set port to FWD\n",
			     "check_fwd_delay_expired", "check_fwd_delay_expired", ins);
	}
}

void member_link_up_cb(struct ev_loop *loop, ev_timer *, int)
{
	ev_timer_stop(loop, &member_timer);
	zalk_event_log("member_link_up_cb", "Enter\n");

	for (int i = 0; i < ZALK_MAX_INSTANCES; i++) {
		if (!instances[i].enabled)
			continue;
		if (zalk_debug(ZALK_TRACE))
			zlog(LOG_NOTICE, "%s() - %s - fwd_cnt(%d): %d\n", "member_link_up_cb", "member_link_up_cb", i,
			     instances[i].fwd_cnt);
		if (instances[i].sending_link_up == 1)
			check_fwd_delay_expired(i);
	}

	// The timer runs only while somebody announces.
	for (int i = 0; i < ZALK_MAX_INSTANCES; i++) {
		if (announcing(i)) {
			zalk_event_log("member_link_up_cb", "Leaving\n");
			ev_timer_again(loop, &member_timer);
			return;
		}
	}
}
