// The ring state machine's single entry point: one event record per
// callback, checked, traced, and routed by event code and role.
#include "ring/dispatch.h"

#include <sys/time.h>

#include "bridge/netlink_ops.h"
#include "daemon/instance.h"
#include "daemon/os.h"
#include "frames/frames.h"
#include "frames/senders.h"
#include "ring/channel.h"
#include "ring/focal.h"
#include "ring/link.h"
#include "ring/member.h"
#include "status/eventlog.h"
#include "status/files.h"
#include "status/names.h"
#include "status/status.h"

namespace {

enum class verdict { done, refused };

bool link_up(int ins, int port) { return instances[ins].port[port].link == 1; }

// A Link Down frame says the ring is broken somewhere: open up, forget a
// returning link that was about to be answered.
void ring_broken_step(int ins)
{
	if (link_up(ins, PORT_A) || link_up(ins, PORT_B))
		focal_config_ring_topology(ins, BROKEN_NET_FOCAL, 0);
	else
		focal_config_ring_topology(ins, DOWN_NET_FOCAL, 0);
	instances[ins].link_up_pending = 0;
	zalkv2_flush_other_rings(ins);
}

// The focal point answered (or the forward delay ran out): the member may
// now forward on both ports, if its links allow it.
void link_response_step(int ins)
{
	instances[ins].sending_link_up = 0;
	if (link_up(ins, PORT_A) && (link_up(ins, PORT_B) || is_bus_edge(ins)))
		member_config_ring_topology(ins, OK_NET_MEMBER, 1);
	else if (link_up(ins, PORT_A) || link_up(ins, PORT_B))
		member_config_ring_topology(ins, BROKEN_NET_MEMBER, 0);
	else
		member_config_ring_topology(ins, DOWN_NET_MEMBER, 0);
	zalkv2_flush_other_rings(ins);
}

// A member tells the focal point about each of its links that is down.
void report_down_links(int ins)
{
	if (!link_up(ins, PORT_A))
		send_link_down(ins, PORT_A);
	if (!link_up(ins, PORT_B) && !is_bus_edge(ins))
		send_link_down(ins, PORT_B);
}

void trace_ring_check_event(int ins, uint32_t event)
{
	if (zalk_debug(ZALK_DBG))
		zlog(LOG_NOTICE, "%s() - I:%d Ev:%s\n", "sm_cb", ins, zalk_event_name(event));
}

// Local link changes and flush requests are handled alike in both roles.
bool shared_action(struct ev_loop *loop, int ins, uint32_t event)
{
	switch (event) {
	case LINKA0_1:
		local_link_up(loop, ins, PORT_A);
		return true;
	case LINKA1_0:
		local_link_down(ins, PORT_A);
		return true;
	case LINKB0_1:
		local_link_up(loop, ins, PORT_B);
		return true;
	case LINKB1_0:
		local_link_down(ins, PORT_B);
		return true;
	case FLUSH_FDB:
		zalkv2_fdb_flush(ins);
		return true;
	}
	return false;
}

verdict focal_action(int ins, uint32_t event, const uint8_t *data)
{
	switch (event) {
	case RX_LINKA_1:
	case RX_LINKB_1:
		instances[ins].link_up_pending = 1;
		store_edge_id(ins, data);
		return verdict::done;
	case RX_LINKA_0:
		zalkv2_send_flush(ins, PORT_B);
		ring_broken_step(ins);
		return verdict::done;
	case RX_LINKB_0:
		zalkv2_send_flush(ins, PORT_A);
		ring_broken_step(ins);
		return verdict::done;
	case RX_TIMEOUT:
		trace_ring_check_event(ins, event);
		focal_ring_timeout(ins);
		return verdict::done;
	case RX_LINK_RESPONSE:
	case RX_LINK_RESPONSE_RING:
		return verdict::done; // a focal point's own answers concern members only
	case FOCAL_TRIG:
		return verdict::refused;
	case RX_PACKET_BUS:
		trace_ring_check_event(ins, event);
		focal_config_ring_topology(ins, RING_FAIL_NET_FOCAL, 0);
		focal_send_trig(ins);
		return verdict::done;
	case RX_PCK:
		trace_ring_check_event(ins, event);
		focal_config_ring_topology(ins, RING_OK_NET_FOCAL, 0);
		return verdict::done;
	}
	return verdict::done;
}

verdict member_action(int ins, uint32_t event, const uint8_t *data)
{
	switch (event) {
	case RX_LINKA_1:
	case RX_LINKB_1: {
		int port = event == RX_LINKA_1 ? PORT_A : PORT_B;
		if (is_edge_switch(ins, port))
			zalkv2_send_link_response(ins, port, zalkv2_decode_link_payload(data).sender, nullptr);
		return verdict::done;
	}
	case RX_LINKA_0:
	case RX_LINKB_0:
		zalkv2_fdb_flush(ins);
		zalkv2_flush_other_rings(ins);
		return verdict::done;
	case RX_TIMEOUT:
	case RX_PACKET_BUS:
	case RX_PCK:
		return verdict::refused; // the focal point's ring check only
	case RX_LINK_RESPONSE:
		link_response_step(ins);
		return verdict::done;
	case FOCAL_TRIG:
		report_down_links(ins);
		return verdict::done;
	case RX_LINK_RESPONSE_RING:
		report_down_links(ins);
		link_response_step(ins);
		return verdict::done;
	}
	return verdict::done;
}

// The checks before any action; false ends the record.
bool event_acceptable(const sm_event &ev)
{
	if (ev.instance > (uint32_t)(ZALK_MAX_INSTANCES - 1)) {
		zlog(LOG_ERR, "Instance %d is to large, max is %d\n", (int)ev.instance, ZALK_MAX_INSTANCES);
		return false;
	}
	if (!instances[ev.instance].enabled) {
		zlog(LOG_ERR, "ZALK instance %d do not exists\n", (int)ev.instance);
		return false;
	}
	return true;
}

void trace_event(const sm_event &ev)
{
	// The ring check posts these every interval on every port; they would
	// flood the STATE log.
	if (ev.event != RX_TIMEOUT && ev.event != RX_PCK) {
		struct timeval tv;
		os_gettimeofday(&tv);
		if (zalk_debug(ZALK_STATE))
			zlog(LOG_NOTICE, "%s() - I:%d Ev:%s time: %ld.%.3ld s\n", "sm_cb", (int)ev.instance,
			     zalk_event_name(ev.event), (long)(tv.tv_sec % 1000), (long)(tv.tv_usec / 1000));
	}
	zalk_event_log("sm_cb", "I:%d Enter %s\n", (int)ev.instance, zalk_event_name(ev.event));
}

// Set only once sm_watcher has been initialised on a valid read end.
bool sm_watcher_ready;

} // namespace

ev_io sm_watcher;

void msg_bus_setup()
{
	int fd = msg_pipe_create();
	if (fd == -1) {
		// Without a pipe the watcher stays uninitialised; msg_bus_start
		// and msg_bus_stop then do nothing and the ring logic hears
		// no events at all.
		zlog(LOG_ERR, "msg bus setup failed\n");
		return;
	}
	ev_io_init(&sm_watcher, sm_cb, fd, EV_READ);
	ev_set_priority(&sm_watcher, ZALK_PRI_EVENTS);
	sm_watcher_ready = true;
}

void msg_bus_start(struct ev_loop *loop)
{
	// Never start a watcher on an invalid descriptor.
	if (!sm_watcher_ready)
		return;
	ev_io_start(loop, &sm_watcher);
}

void msg_bus_stop(struct ev_loop *loop)
{
	if (!sm_watcher_ready)
		return;
	ev_io_stop(loop, &sm_watcher);
}

void sm_cb(struct ev_loop *loop, ev_io *w, int)
{
	// The status files of a state change are written when the handler is
	// done, after the frames it sends.
	zalk_status_batch status_after_frames;
	ev_io_stop(loop, w);

	sm_event ev{};
	// A short record cannot be told apart from garbage; it is handled like
	// a failed read (records are always written whole).
	ssize_t n = sm_read_event(&ev);
	if (n == (ssize_t)sizeof(ev) && event_acceptable(ev)) {
		trace_event(ev);
		int ins = (int)ev.instance;
		if (ev.event > SM_EVENT_MAX) {
			zlog(LOG_ERR, "Invalid event %d received!\n", (int)ev.event);
		} else {
			verdict v = verdict::done;
			if (!shared_action(loop, ins, ev.event))
				v = is_focal(ins) ? focal_action(ins, ev.event, ev.data)
						  : member_action(ins, ev.event, ev.data);
			if (v == verdict::refused) {
				zalk_event_log("sm_cb", "Leaving\n");
				zlog(LOG_ERR, "Enter %s but is %s\n", zalk_event_name(ev.event),
				     zalk_ring_type_name(instances[ins].role));
				ev_io_start(loop, w);
				return;
			}
		}
	}

	zalk_event_log("sm_cb", "Leaving\n");
	ev_io_start(loop, w);
}
