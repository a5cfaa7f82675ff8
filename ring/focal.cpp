// The focal point role: ring supervision with Ring frames, ring state
// changes, guarded recovery with Trig frames, and the response-delay hold
// that closes the ring again (blocked port first, then the answer).
#include "ring/focal.h"

#include <cmath>
#include <initializer_list>

#include "bridge/netlink_ops.h"
#include "daemon/instance.h"
#include "frames/frames.h"
#include "frames/senders.h"
#include "frames/sockets.h"
#include "ring/channel.h"
#include "ring/ports.h"
#include "status/eventlog.h"
#include "status/files.h"
#include "status/names.h"
#include "status/status.h"

uint32_t miss_count[10][2];
uint32_t hit_count[10][2];
uint32_t response_ticks[10];
ev_timer response_timer;

namespace {

constexpr double RESPONSE_TICK = 0.05;   // the hold's 50 ms tick
constexpr double RING_TIMER_FIRST = 1.0; // first ring check after start

// The configuration refuses a ring-interval of 0 or below, but an
// instance record can hold anything: such a period would make the ring
// timer fire at every loop iteration and the miss counters race to a
// timeout, so the timer never runs faster than every 10 ms; the stored
// value stays as it is.
constexpr double RING_INTERVAL_MIN = 0.010;

double ring_timer_period(float interval)
{
	if (!(interval >= RING_INTERVAL_MIN)) // NaN included
		return RING_INTERVAL_MIN;
	return interval;
}

enum hold : uint32_t {
	HOLD_IDLE = 0,
	HOLD_COUNTING = 1,
	HOLD_EXPIRED = 3,
};

bool skips_port(int ins, int port) { return port == PORT_B && is_bus_edge(ins); }

bool ring_is_broken_or_down(uint32_t state) { return state >= BROKEN_NET_FOCAL; }

// Both own links up (port B not needed on a bus): the ring may be closed.
bool links_allow_closed_ring(int ins)
{
	const zalkv2_instance &in = instances[ins];
	return in.port[PORT_A].link == 1 && (in.port[PORT_B].link == 1 || is_bus_edge(ins));
}

// The hold has run out: close the ring (the blocked port is blocked by
// zalk_port_states before anything else happens), then let the members
// at the former break open theirs with the Link Responses.
void answer_returning_link(int ins)
{
	zalkv2_instance &in = instances[ins];
	if (links_allow_closed_ring(ins))
		focal_config_ring_topology(ins, RING_OK_NET_FOCAL, 0);
	else
		focal_config_ring_topology(ins, BROKEN_NET_FOCAL, 1);
	miss_count[ins][PORT_A] = 0;
	miss_count[ins][PORT_B] = 0;
	zalkv2_send_link_responses(ins, in.edge[0].edge_id, in.edge[1].edge_id);
	in.hold_state = HOLD_IDLE;
	in.link_up_pending = 0;
}

void response_hold_tick(int ins)
{
	zalkv2_instance &in = instances[ins];
	switch (in.hold_state) {
	case HOLD_IDLE:
		if (in.link_up_pending == 1) {
			in.hold_state = HOLD_COUNTING;
			response_ticks[ins] = 0;
		}
		break;
	case HOLD_COUNTING:
		if (in.link_up_pending == 0) {
			in.hold_state = HOLD_IDLE;
			break;
		}
		if (response_ticks[ins]++ > in.response_delay)
			in.hold_state = HOLD_EXPIRED;
		break;
	case HOLD_EXPIRED:
		if (in.link_up_pending == 0)
			in.hold_state = HOLD_IDLE;
		else
			answer_returning_link(ins);
		break;
	default:
		in.hold_state = HOLD_IDLE;
		break;
	}
}

} // namespace

void focal_timers_init()
{
	ev_timer_init(&response_timer, focal_response_timer_cb, RESPONSE_TICK, RESPONSE_TICK);
	for (int i = 0; i < ZALK_MAX_INSTANCES; i++) {
		ev_timer_init(&instances[i].ring_timer, focal_ring_pkt_handler_cb, RING_TIMER_FIRST, 0.);
		instances[i].ring_timer.data = &instances[i];
	}
}

void focal_response_timer_start(struct ev_loop *loop)
{
	for (int i = 0; i < ZALK_MAX_INSTANCES; i++) {
		if (instances[i].enabled && instances[i].role == RING_TYPE_FOCAL) {
			ev_timer_start(loop, &response_timer);
			return;
		}
	}
}

void focal_response_timer_stop(struct ev_loop *loop) { ev_timer_stop(loop, &response_timer); }

void focal_ring_timer_start(int ins, struct ev_loop *loop)
{
	zalkv2_instance &in = instances[ins];
	if (in.role != RING_TYPE_FOCAL)
		return;
	if (ring_timer_period(in.ring_interval) != in.ring_interval)
		zlog(LOG_ERR, "Ring interval of instance %d too short, checking every %d ms\n", ins,
		     (int)lround(RING_INTERVAL_MIN * 1000));
	ev_timer_start(loop, &in.ring_timer);
}

void focal_ring_timer_stop(int ins, struct ev_loop *loop) { ev_timer_stop(loop, &instances[ins].ring_timer); }

void send_ring_packets(int ins, int port)
{
	if (skips_port(ins, port))
		return;
	zalkv2_port &p = instances[ins].port[port];
	if (zalk_debug(ZALK_TRACE))
		zlog(LOG_NOTICE, "%s() - port %s - port_link:%d\n", "send_ring_packets", port == PORT_A ? "A" : "B",
		     p.link);
	packet_send(&p, instances[ins].tpl_ring, ZALK_FRAME_LEN);
	p.tx_ring++; // counted per attempt, sent or not
}

void check_ring_packets(int ins, int port)
{
	if (skips_port(ins, port))
		return;
	zalkv2_instance &in = instances[ins];
	zalkv2_port &p = in.port[port];

	if ((int32_t)p.rx_ring == (int32_t)p.rx_ring_last) {
		// Nothing came back this interval; from the fourth one on the
		// ring is in doubt, and stays so at every interval after that.
		if ((int32_t)miss_count[ins][port]++ > 2)
			sm_send_event((uint32_t)ins, RX_TIMEOUT, nullptr, 0);
		hit_count[ins][port] = 0;
		return;
	}

	p.rx_ring_last = p.rx_ring;
	if (!ring_is_broken_or_down(in.ring_state)) {
		sm_send_event((uint32_t)ins, RX_PCK, nullptr, 0);
		hit_count[ins][port] = 0;
	} else if ((int32_t)hit_count[ins][port]++ > 2) {
		// Frames return again and again while broken: the ring has closed.
		sm_send_event((uint32_t)ins, RX_PACKET_BUS, nullptr, 0);
	}
	miss_count[ins][port] = 0;
}

void focal_ring_pkt_handler_cb(struct ev_loop *loop, ev_timer *w, int)
{
	auto *in = static_cast<zalkv2_instance *>(w->data);
	int ins = (int)(in - instances);
	float interval = in->ring_interval;
	ev_timer_stop(loop, w);

	zalk_event_log("focal_ring_pkt_handler_cb", "Enter\n");
	if (zalk_debug(ZALK_TRACE))
		zlog(LOG_NOTICE, "%s() - I:%d - A(rx:%d) B(rx:%d)\n\n", "focal_ring_pkt_handler_cb", ins,
		     (int)in->port[PORT_A].rx_ring, (int)in->port[PORT_B].rx_ring);

	// Check before send: each check sees the frames of the last interval.
	check_ring_packets(ins, PORT_A);
	check_ring_packets(ins, PORT_B);
	send_ring_packets(ins, PORT_A);
	send_ring_packets(ins, PORT_B);

	ev_timer_set(w, ring_timer_period(interval), 0.);
	zalk_event_log("focal_ring_pkt_handler_cb", "Leaving\n");
	ev_timer_start(loop, w);
}

void focal_config_ring_topology(int ins, uint32_t state, int force)
{
	zalkv2_instance &in = instances[ins];
	if (!force && in.ring_state == state) {
		if (zalk_debug(ZALK_TRACE))
			zlog(LOG_NOTICE, "%s() - Ins:%d No change, same ring state %s\n", "focal_config_ring_topology",
			     ins, zalk_ring_state_name(state, true));
		return;
	}
	if (zalk_debug(ZALK_STATE))
		zlog(LOG_NOTICE, "%s() - I:%d %s -> %s\n", "focal_config_ring_topology", ins,
		     zalk_ring_state_name(in.ring_state, true), zalk_ring_state_name(state, true));

	// Port states first (blocking before forwarding), then the flush, then
	// the published state (inside an event's handling written when it
	// ends, after its frames).
	zalk_event_log("focal_config_ring_topology", "zalk_port_states (ins)\n");
	in.ring_state = zalk_port_states(ins, state);
	zalk_event_log("focal_config_ring_topology", "zalkv2_fdb_flush()\n");
	zalkv2_fdb_flush(ins);
	zalk_event_log("focal_config_ring_topology", "zalk_set_status (ins)\n");
	zalk_set_status(ins);
}

void focal_send_trig(int ins)
{
	zalkv2_instance &in = instances[ins];
	for (int port : {PORT_A, PORT_B})
		if (zalkv2_port_configured(in.port[port]))
			packet_send(&in.port[port], in.tpl_trig, ZALK_FRAME_LEN);
}

void focal_ring_timeout(int ins)
{
	zalkv2_instance &in = instances[ins];
	if (ring_is_broken_or_down(in.ring_state))
		return;

	if (!in.guarded_recovery) {
		if (zalk_debug(ZALK_STATE))
			zlog(LOG_NOTICE, "%s() - I:%d RX_TIMEOUT while in not GUARDED mode\n", "focal_ring_timeout", ins);
		zalk_event_log("focal_ring_timeout", "RX_TIMEOUT while in not in GUARDED mode\n");
		focal_config_ring_topology(ins, BROKEN_NET_FOCAL, 0);
		zalkv2_flush_other_rings(ins);
		return;
	}

	// Guarded: a mere loss of Ring frames keeps the blocked port blocked;
	// only a member's Link Down frame (answering the Trig) opens it.
	if (zalk_debug(ZALK_STATE))
		zlog(LOG_NOTICE, "%s() - I:%d RX_TIMEOUT, while state = %s, send trig\n", "focal_ring_timeout", ins,
		     zalk_ring_state_name(in.ring_state, false));
	focal_config_ring_topology(ins, RING_FAIL_NET_FOCAL, 0);
	focal_send_trig(ins);
}

void focal_response_timer_cb(struct ev_loop *, ev_timer *, int)
{
	// The status files of the answer are written after its Link Responses.
	zalk_status_batch status_after_frames;
	// Only focal points hold: a slot that was a focal point before a
	// reconfiguration made it a member may still carry a stale
	// link_up_pending, and a member must never run the focal point's
	// answer (port states, Link Responses).
	for (int i = 0; i < ZALK_MAX_INSTANCES; i++)
		if (is_focal(i))
			response_hold_tick(i);
}
